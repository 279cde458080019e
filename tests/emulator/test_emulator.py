#!/usr/bin/python3
"""System tests of usbd-emu and usbd-emuctl. Need root and /dev/fuse.

Usage: test_emulator.py BUILD_DIR [unittest args]. Each test runs its own emulator (named
uniquely, so tests may run in parallel) with ffs_agent.py inside as the device-side client.
"""

import errno
import json
import os
import random
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
import shm_holder  # noqa: E402

BUILD = os.path.abspath(sys.argv.pop(1)) if len(sys.argv) > 1 else os.getcwd()
EMU = os.path.join(BUILD, "usbd-emu")
EMUCTL = os.path.join(BUILD, "usbd-emuctl")
AGENT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "ffs_agent.py")
PYTHON = "/usr/bin/python3"
FFS = "/dev/usb-ffs/bulk"
UDC = "/sys/class/udc/emu-udc.0"
MAXPOWER = "/sys/kernel/config/usb_gadget/g1/configs/c.1/MaxPower"
PHYS_IOCTL = 0x6706
HAL_LIB = os.path.join(BUILD, "platform", "hal", "libarvohal.so")


# ---- the daemon's blobs, from its tables --------------------------------------------------

def speed_set(max_packet, i_interface, companions):
    out = bytes([9, 4, 0, 0, 4, 0xFF, 0, 0, i_interface])
    for address in ADDRESSES:
        out += bytes([9, 5, address, 2]) + struct.pack("<H", max_packet) + bytes(3)
        out += bytes([6, 0x30, 15 if address == 0x81 else 0, 0, 0, 0]) if companions else b""
    return out


def with_field(blob, at, value):
    return blob[:at] + struct.pack("<I", value) + blob[at + 4:]


ADDRESSES = [0x01, 0x02, 0x81, 0x82]
BODY = speed_set(64, 1, False) + speed_set(512, 1, False) + speed_set(1024, 0, True)
DESCRIPTORS = struct.pack("<6I", 3, 24 + len(BODY), 7, 5, 5, 9) + BODY
STRINGS = struct.pack("<IIIIH", 2, 33, 1, 1, 0x0409) + b"CTRL Interface\0"


def agent_with_hal():
    """The agent's command line when it loads the HAL library, which in sanitizer builds needs
    the sanitizer's runtime loaded before it."""
    ldd = subprocess.run(["ldd", HAL_LIB], capture_output=True, text=True).stdout
    runtime = [line.split()[2] for line in ldd.splitlines() if "libasan" in line]
    preload = ["env", "LD_PRELOAD=" + runtime[0], "ASAN_OPTIONS=detect_leaks=0"] if runtime else []
    return preload + [PYTHON, AGENT]


def event_type(record_hex):
    record = bytes.fromhex(record_hex)
    assert len(record) == 12, record_hex
    return record[8]


def namespace_members(pidns):
    def namespace(pid):
        try:
            return os.readlink("/proc/%s/ns/pid" % pid)
        except OSError:
            return None
    return [int(pid) for pid in os.listdir("/proc") if pid.isdigit() and namespace(pid) == pidns]


# ---- harness -------------------------------------------------------------------------------

class Emulator:
    """One usbd-emu with the agent inside; `call` runs an agent operation."""

    counter = 0

    def __init__(self, *options, command=None):
        Emulator.counter += 1
        self.name = "t%d-%d" % (os.getpid(), Emulator.counter)
        self.log = tempfile.TemporaryFile()
        self.replies = {}
        self.cond = threading.Condition()
        self.seq = 0
        command = command or [PYTHON, AGENT]
        self.proc = subprocess.Popen([EMU, "--name", self.name, *options, "--", *command],
                                     stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     stderr=self.log)
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()
        self.wait_reply("hello")

    def _read(self):
        for line in self.proc.stdout:
            try:
                msg = json.loads(line)
            except ValueError:
                continue
            with self.cond:
                self.replies[msg["id"]] = msg
                self.cond.notify_all()

    def wait_reply(self, rid, timeout=10):
        with self.cond:
            if not self.cond.wait_for(lambda: rid in self.replies, timeout):
                raise AssertionError("no reply to %s; log:\n%s" % (rid, self.logtext()))
            return self.replies.pop(rid)

    def start(self, op, **kw):
        self.seq += 1
        rid = "r%d" % self.seq
        self.proc.stdin.write((json.dumps(dict(kw, op=op, id=rid, **{"async": True})) + "\n").encode())
        self.proc.stdin.flush()
        return rid

    def pending(self, rid, settle=0.3):
        time.sleep(settle)
        with self.cond:
            return rid not in self.replies

    def call(self, op, **kw):
        return self.wait_reply(self.start(op, **kw))

    def ctl(self, *args):
        return subprocess.run([EMUCTL, "--name", self.name, *args], capture_output=True, timeout=30)

    def ok(self, *args):
        r = self.ctl(*args)
        assert r.returncode == 0, (args, r.returncode, r.stderr)
        return r.stdout.decode()

    def status(self):
        return json.loads(self.ok("status", "--json"))

    def logtext(self):
        self.log.seek(0)
        return self.log.read().decode(errors="replace")

    def open(self, path, **kw):
        r = self.call("open", path=path, **kw)
        assert r["ret"] >= 0, r
        return r["ret"]

    def inside(self, path):
        """The path as processes inside see it, reached through the namespace's init."""
        return "/proc/%d/root%s" % (self.status()["init_pid"], path)

    def readfile(self, path):
        with open(self.inside(path), "rb") as f:
            return f.read()

    def make_ready(self):
        ep0 = self.open(FFS + "/ep0")
        assert self.call("write", fd=ep0, hex=DESCRIPTORS.hex())["ret"] == 183
        assert self.call("write", fd=ep0, hex=STRINGS.hex())["ret"] == 33
        return ep0

    def finish(self, status=0, timeout=10):
        if self.proc.poll() is None:
            try:
                self.proc.stdin.write((json.dumps({"op": "quit", "id": "q", "status": status}) + "\n").encode())
                self.proc.stdin.flush()
            except BrokenPipeError:
                pass
        try:
            return self.proc.wait(timeout)
        finally:
            if self.proc.poll() is None:
                self.proc.kill()
                self.proc.wait()
            self.reader.join(5)
            for f in (self.proc.stdin, self.proc.stdout):
                try:
                    f.close()
                except OSError:
                    pass

    def close(self):
        self.finish()
        log = self.logtext()
        self.log.close()
        # In sanitizer builds the emulator's own faults show up only in its log.
        assert "Sanitizer" not in log, log


class EmulatorTest(unittest.TestCase):
    def setUp(self):
        self.emus = []

    def tearDown(self):
        for emu in self.emus:
            emu.close()

    def emulator(self, *options, **kw):
        emu = Emulator(*options, **kw)
        self.emus.append(emu)
        return emu

    def test_blobs_are_validated_and_create_the_endpoints(self):
        # The full table of refused blobs is in blobs_test.cpp; here a refusal must reach the
        # writer with the kernel's errno and leave the function where it was.
        emu = self.emulator()
        ep0 = emu.open(FFS + "/ep0")
        self.assertEqual(sorted(os.listdir(emu.inside(FFS))), ["ep0"])
        self.assertEqual(emu.call("read", fd=ep0, size=12)["errno"], errno.EBADFD)
        for blob, error in ((with_field(DESCRIPTORS, 4, 184), errno.EINVAL),
                            (with_field(DESCRIPTORS, 8, 7 | 0x100), errno.ENOSYS)):
            r = emu.call("write", fd=ep0, hex=blob.hex())
            self.assertEqual((r["ret"], r.get("errno")), (-1, error))
        self.assertEqual(emu.status()["state"], "waiting-descriptors")

        self.assertEqual(emu.call("write", fd=ep0, hex=DESCRIPTORS.hex())["ret"], 183)
        r = emu.call("write", fd=ep0, hex=(STRINGS + b"\0").hex())
        self.assertEqual((r["ret"], r.get("errno")), (-1, errno.EINVAL))
        self.assertEqual(emu.status()["state"], "waiting-strings")
        self.assertEqual(emu.call("write", fd=ep0, hex=STRINGS.hex())["ret"], 33)
        emu.ok("wait-ready", "--timeout", "1")
        # One file per endpoint, named in the order of the descriptors: the daemon opens them so.
        self.assertEqual(sorted(os.listdir(emu.inside(FFS))), ["ep0", "ep1", "ep2", "ep3", "ep4"])
        self.assertEqual([(e["file"], e["address"]) for e in emu.status()["endpoints"]],
                         [("ep%d" % (n + 1), a) for n, a in enumerate(ADDRESSES)])

        # Closing every file takes the function down, as in the kernel.
        emu.call("close", fd=ep0)
        self.assertEqual(emu.status()["state"], "waiting-descriptors")

    def test_events_epoll_and_controller_files(self):
        emu = self.emulator()
        ep0 = emu.make_ready()
        self.assertEqual(emu.call("read", fd=ep0, size=11)["errno"], errno.EINVAL)
        nonblocking = emu.open(FFS + "/ep0", nonblock=True)
        self.assertEqual(emu.call("read", fd=nonblocking, size=12)["errno"], errno.EAGAIN)

        waiter = emu.start("epoll", fd=ep0, timeout=10)
        self.assertTrue(emu.pending(waiter), "epoll woke without an event")
        emu.ok("plug", "--speed", "high-speed", "--maxpower", "500")
        self.assertEqual(emu.wait_reply(waiter)["ret"], 1)
        # The files hold the new values before the device can see ENABLE.
        self.assertEqual([emu.readfile(path) for path in (UDC + "/state", UDC + "/current_speed", MAXPOWER)],
                         [b"configured\n", b"high-speed\n", b"500\n"])
        self.assertEqual([event_type(emu.call("read", fd=ep0, size=12)["hex"]) for _ in range(2)], [0, 2])

        reader = emu.start("read", fd=ep0, size=12)
        self.assertTrue(emu.pending(reader))
        emu.ok("event", "suspend")
        self.assertEqual(event_type(emu.wait_reply(reader)["hex"]), 5)
        emu.ok("event", "200")
        emu.ok("unplug")
        # A buffer for several records takes what is queued, in order.
        r = emu.call("read", fd=ep0, size=48)
        self.assertEqual(r["ret"], 24)
        self.assertEqual([bytes.fromhex(r["hex"])[8], bytes.fromhex(r["hex"])[20]], [200, 3])
        self.assertEqual([emu.readfile(UDC + "/state"), emu.readfile(UDC + "/current_speed")],
                         [b"not attached\n", b"UNKNOWN\n"])

        # A SETUP the device does not answer: its next read of a host-to-device request with
        # no data stage returns 0, a read for a device-to-host request stalls.
        emu.ok("event", "setup", "0000000000000000")
        self.assertEqual(event_type(emu.call("read", fd=ep0, size=12)["hex"]), 4)
        self.assertEqual(emu.call("read", fd=ep0, size=12)["ret"], 0)
        emu.ok("event", "setup", "8006000100001200")
        emu.call("read", fd=ep0, size=12)
        self.assertEqual(emu.call("read", fd=ep0, size=12)["errno"], errno.EL2HLT)

    def test_endpoints_follow_the_host_and_the_capture_is_exact(self):
        with tempfile.TemporaryDirectory() as tmp:
            capture = os.path.join(tmp, "capture")
            emu = self.emulator("--capture", capture)
            emu.make_ready()
            ep1, ep3 = emu.open(FFS + "/ep1"), emu.open(FFS + "/ep3")
            waiting = emu.start("write", fd=ep3, size=5000, seed=1)
            self.assertTrue(emu.pending(waiting), "IN write went through before the host enabled it")
            emu.ok("plug")
            self.assertEqual(emu.wait_reply(waiting)["ret"], 5000)

            emu.ok("short", "1000")
            self.assertEqual(emu.call("write", fd=ep3, size=5000, seed=2)["ret"], 1000)
            # A limit past the first 1 MiB request: the call ends inside its second request.
            emu.ok("short", str(1536 * 1024))
            self.assertEqual(emu.call("write", fd=ep3, size=4 << 20, seed=3)["ret"], 1536 * 1024)
            # Uneven buffers, which the kernel splits into chunks across their boundaries.
            sizes = [3 * 1024 * 1024 + 7, 5 * 1024 * 1024 + 4093, 123457]
            self.assertEqual(emu.call("writev", fd=ep3, sizes=sizes, seed=4)["ret"], sum(sizes))

            emu.ok("stall")
            held = emu.start("write", fd=ep3, size=100, seed=5)
            self.assertTrue(emu.pending(held))
            self.assertEqual(emu.status()["endpoints"][2]["waiting"], 1)
            emu.ok("release")
            self.assertEqual(emu.wait_reply(held)["ret"], 100)

            # Transfers in flight when the host goes fail with ESHUTDOWN, in both directions.
            emu.ok("stall")
            held, reading = emu.start("write", fd=ep3, size=100), emu.start("read", fd=ep1, size=10)
            self.assertTrue(emu.pending(held) and emu.pending(reading, settle=0))
            emu.ok("unplug")
            self.assertEqual([emu.wait_reply(held)["errno"], emu.wait_reply(reading)["errno"]],
                             [errno.ESHUTDOWN] * 2)

            def pattern(size, seed):
                return random.Random(seed).randbytes(size)
            expected = (pattern(5000, 1) + pattern(5000, 2)[:1000] + pattern(4 << 20, 3)[:1536 * 1024]
                        + pattern(sum(sizes), 4) + pattern(100, 5))
            with open(capture, "rb") as f:
                self.assertTrue(f.read() == expected)
            st = emu.status()["endpoints"][2]
            # The failed write delivered nothing and does not count.
            self.assertEqual((st["bytes"], st["writes"]), (len(expected), 5))
            self.assertEqual(emu.call("ioctl", fd=ep1, cmd=PHYS_IOCTL)["errno"], errno.ENOTTY)
            self.assertEqual(emu.call("ioctl", fd=ep3, cmd=0x1234)["errno"], errno.ENOTTY)

    def test_physical_address_transfers(self):
        with tempfile.TemporaryDirectory() as tmp:
            capture = os.path.join(tmp, "capture")
            emu = self.emulator("--capture", capture, command=agent_with_hal())
            emu.make_ready()
            ep3 = emu.open(FFS + "/ep3")
            size = 3 << 20
            mem = emu.call("halmem", lib=HAL_LIB, size=size, seed="phys")
            self.assertEqual(mem["ret"], 0, mem)
            data, phys = shm_holder.pattern(size, "phys"), mem["phys"]

            def phys_send(address, length):
                return emu.start("ioctl", fd=ep3, cmd=PHYS_IOCTL, phys=address, length=length)

            # Before the host enables the function the request waits, as a write does.
            first = phys_send(phys + 100, 2 << 20)
            self.assertTrue(emu.pending(first))
            emu.ok("plug")
            self.assertEqual(emu.wait_reply(first)["ret"], 2 << 20)
            emu.ok("short", "1000")
            self.assertEqual(emu.wait_reply(phys_send(phys, 5000))["ret"], 1000)
            self.assertEqual(emu.wait_reply(phys_send(phys + size - 10, 10))["ret"], 10)
            emu.ok("stall")
            held = phys_send(phys, 10)
            self.assertTrue(emu.pending(held))
            emu.call("signal", target=held)
            self.assertEqual(emu.wait_reply(held)["errno"], errno.EINTR)
            emu.ok("release")

            # Memory the caller does not hold, or a range past its end: EFAULT, nothing sent.
            for address, length in ((phys + size, 1), (phys - 4096, 16), (phys + size - 10, 11)):
                r = emu.wait_reply(phys_send(address, length))
                self.assertEqual(r.get("errno"), errno.EFAULT, (address - phys, length))
            with open(capture, "rb") as f:
                self.assertTrue(f.read() == data[100:100 + (2 << 20)] + data[:1000] + data[-10:])
            ep = emu.status()["endpoints"][2]
            self.assertEqual((ep["ioctls"], ep["ioctl_bytes"], ep["writes"], ep["bytes"]),
                             (3, (2 << 20) + 1010, 0, (2 << 20) + 1010))

    def test_exit_status_and_cleanup(self):
        # A command and working directory in the host's /tmp (a checkout built there) stay
        # reachable by their paths inside.
        with tempfile.TemporaryDirectory(dir="/tmp") as tmp:
            script = os.path.join(tmp, "run.sh")
            with open(script, "w") as f:
                f.write('#!/bin/sh\ncat "$PWD/data"\n')
            os.chmod(script, 0o755)
            with open(os.path.join(tmp, "data"), "w") as f:
                f.write("seen")
            r = subprocess.run([EMU, "--name", "st%d" % os.getpid(), "--", script], cwd=tmp,
                               capture_output=True, timeout=10)
            self.assertEqual((r.returncode, r.stdout), (0, b"seen"), r.stderr)

        with open("/proc/self/mountinfo") as f:
            mounts_before = sorted(line.split(" ", 4)[4] for line in f)
        marker = "usbd-emu-marker-%d" % os.getpid()
        for how in ("exit", "sigterm", "sigkill"):
            emu = self.emulator()
            ep0 = emu.make_ready()
            emu.ok("plug")
            with open(emu.inside("/tmp/" + marker), "w") as f:
                f.write("x")
            # A process that outlives the command, and one blocked in a FunctionFS read.
            emu.ok("exec", "--", "sh", "-c", "sleep 300 >/dev/null 2>&1 &")
            emu.start("read", fd=ep0, size=12)
            pidns = os.readlink("/proc/%d/ns/pid" % emu.status()["init_pid"])
            if how == "exit":
                self.assertEqual(emu.finish(status=3), 3)
            elif how == "sigterm":
                emu.proc.terminate()
                # The agent gets the SIGTERM and dies of it; its status comes back.
                self.assertEqual(emu.proc.wait(10), 128 + 15)
            else:
                emu.proc.kill()
                emu.proc.wait(10)
            deadline = time.time() + 5
            while time.time() < deadline and namespace_members(pidns):
                time.sleep(0.05)
            self.assertEqual(namespace_members(pidns), [], how)
            self.assertFalse(os.path.exists("/tmp/" + marker))
            self.assertEqual(emu.ctl("status").returncode, 3, how)
        with open("/proc/self/mountinfo") as f:
            self.assertEqual(sorted(line.split(" ", 4)[4] for line in f), mounts_before)


if __name__ == "__main__":
    unittest.main()
