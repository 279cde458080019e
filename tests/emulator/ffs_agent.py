#!/usr/bin/python3
"""Runs inside usbd-emu and performs file operations for the system tests.

One JSON request per stdin line, one JSON reply per stdout line, matched by "id". Requests with
"async": true run on a thread of their own, so a test can start a call that blocks (an endpoint
write waiting for the host) and look at it, or signal it, while it blocks. System calls go
through libc directly: the tests need their raw results (short counts, EINTR), which Python's
own wrappers would retry or hide.
"""

import ctypes
import ctypes.util
import json
import os
import random
import select
import signal
import struct
import sys
import threading

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
import shm_holder  # noqa: E402

libc = ctypes.CDLL(ctypes.util.find_library("c"), use_errno=True)
libc.write.argtypes = [ctypes.c_int, ctypes.c_void_p, ctypes.c_size_t]
libc.write.restype = ctypes.c_ssize_t
libc.read.argtypes = [ctypes.c_int, ctypes.c_void_p, ctypes.c_size_t]
libc.read.restype = ctypes.c_ssize_t
libc.writev.argtypes = [ctypes.c_int, ctypes.c_void_p, ctypes.c_int]
libc.writev.restype = ctypes.c_ssize_t
libc.ioctl.argtypes = [ctypes.c_int, ctypes.c_ulong, ctypes.c_void_p]
libc.ioctl.restype = ctypes.c_int


class IoVec(ctypes.Structure):
    _fields_ = [("base", ctypes.c_void_p), ("len", ctypes.c_size_t)]


def pattern(size, seed):
    return random.Random(seed).randbytes(size)


out_lock = threading.Lock()
threads = {}


def reply(message):
    with out_lock:
        sys.stdout.write(json.dumps(message) + "\n")
        sys.stdout.flush()


def result(ret):
    if ret < 0:
        return {"ret": -1, "errno": ctypes.get_errno()}
    return {"ret": ret}


def op_open(req):
    flags = os.O_RDWR
    if req.get("nonblock"):
        flags |= os.O_NONBLOCK
    try:
        return {"ret": os.open(req["path"], flags)}
    except OSError as e:
        return {"ret": -1, "errno": e.errno}


def op_close(req):
    os.close(req["fd"])
    return {"ret": 0}


def op_write(req):
    data = bytes.fromhex(req["hex"]) if "hex" in req else pattern(req["size"], req.get("seed", 0))
    buf = ctypes.create_string_buffer(data, len(data))
    return result(libc.write(req["fd"], buf, len(data)))


def op_writev(req):
    # One writev of several buffers cut from one pattern; each buffer is malloc'd memory, so
    # the kernel splits the call into uneven chunks.
    data = pattern(sum(req["sizes"]), req.get("seed", 0))
    buffers, pos = [], 0
    for size in req["sizes"]:
        buffers.append(ctypes.create_string_buffer(data[pos:pos + size], size))
        pos += size
    iov = (IoVec * len(buffers))(*[IoVec(ctypes.cast(b, ctypes.c_void_p), len(b)) for b in buffers])
    return result(libc.writev(req["fd"], iov, len(buffers)))


def op_read(req):
    buf = ctypes.create_string_buffer(req["size"])
    ret = libc.read(req["fd"], buf, req["size"])
    out = result(ret)
    if ret >= 0:
        out["hex"] = buf.raw[:ret].hex()
    return out


def op_ioctl(req):
    # The physical-address request's record: {u32 address, u32 length}.
    record = ctypes.create_string_buffer(struct.pack("<II", req.get("phys", 0), req.get("length", 0)), 8)
    return result(libc.ioctl(req["fd"], req["cmd"], record))


hal_memory = []


def op_halmem(req):
    # HAL memory of this process, filled with the shared test pattern; kept until the agent ends.
    hal, memory, _, phys = shm_holder.allocate(req["lib"], req["size"], req["seed"])
    hal_memory.append((hal, memory))
    return {"ret": 0, "phys": phys}


def op_epoll(req):
    ep = select.epoll()
    try:
        ep.register(req["fd"], select.EPOLLIN)
        events = ep.poll(req.get("timeout", -1))
        return {"ret": len(events), "events": [mask for _, mask in events]}
    finally:
        ep.close()


def op_signal(req):
    # Interrupts the thread that runs the asynchronous request `target`.
    signal.pthread_kill(threads[req["target"]], signal.SIGUSR1)
    return {"ret": 0}


OPS = {name[3:]: fn for name, fn in globals().items() if name.startswith("op_")}


def run(req):
    threads[req["id"]] = threading.get_ident()
    try:
        out = OPS[req["op"]](req)
    except Exception as e:  # a test bug, reported rather than hanging the test
        out = {"ret": -1, "exception": repr(e)}
    out["id"] = req["id"]
    reply(out)


def main():
    # A do-nothing handler, installed without SA_RESTART by Python, makes a blocked call
    # return EINTR, which is how the daemon cancels a transfer.
    signal.signal(signal.SIGUSR1, lambda *_: None)
    reply({"id": "hello", "ret": 0})
    for line in sys.stdin:
        req = json.loads(line)
        if req["op"] == "quit":
            os._exit(req.get("status", 0))
        if req.get("async"):
            t = threading.Thread(target=run, args=(req,), daemon=True)
            t.start()
        else:
            run(req)
    os._exit(0)


if __name__ == "__main__":
    main()
