"""send_file through the daemon against a bare writev loop, on the stock kernel (guest side).

Run by scripts/bench-kernel inside the VM of scripts/kernel-test. In turns A B A B, one program
owns the function: the daemon (A), asked over D-Bus for COUNT send_file requests of one FILE_MIB
file, or build/bench/kernel/ffs_writev (B), writing the same file COUNT times. The host reads
everything into one reused buffer; the time runs from the start signal to the last byte read.
Prints MB/s per turn, the medians and the median of the pairwise ratios A/B.
"""

import os
import statistics
import subprocess
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tests", "kernel"))
import device  # noqa: E402
import suite  # noqa: E402
from suite import GADGET, PATH, SERVICE, USBD, Host, run, wait_for  # noqa: E402

import dbus  # noqa: E402
import usb.util  # noqa: E402

ROUNDS = int(os.environ.get("BENCH_ROUNDS", "5"))
COUNT = int(os.environ.get("BENCH_COUNT", "16"))
# 4 MiB: the largest single write dummy_hcd's FunctionFS takes (f_fs copies a call into one
# kernel buffer); the daemon sends one such file in one call.
FILE_MIB = int(os.environ.get("BENCH_FILE_MIB", "4"))
BASELINE = os.path.join(suite.BUILD, "bench", "kernel", "ffs_writev")


def read_all(host, total):
    buffer = usb.util.create_buffer(1 << 20)
    got = 0
    while got < total:
        got += host.dev.read(host.ep_in, buffer, 20000)
    return got


def start(program):
    if os.path.exists("/tmp/usbd-socket"):
        os.unlink("/tmp/usbd-socket")
    log = open(os.path.join(suite.OUT, "bench.log"), "ab")
    process = subprocess.Popen(program, stdin=subprocess.PIPE, stdout=log, stderr=log)
    wait_for(lambda: os.path.exists("/dev/usb-ffs/bulk/ep4"), 20, "the function's descriptors")
    run(GADGET, "bind", "--timeout", "10")
    return process


def stop(process, host):
    host.close()
    run(GADGET, "unbind")
    process.kill()
    process.wait()
    wait_for(lambda: not os.path.exists("/dev/usb-ffs/bulk/ep1"), 10, "the function to close")


def turn_daemon(path, total):
    process = start([USBD])
    wait_for(suite._bus_has_daemon, 20, "the daemon on the bus")
    host = Host()
    obj = dbus.SystemBus().get_object(SERVICE, PATH)
    piece = dbus.Dictionary({"path": dbus.String(path), "offset": dbus.Int64(0),
                             "size": dbus.Int32(FILE_MIB << 20), "element_alignment": dbus.Int32(0),
                             "element_padding": dbus.Int32(0), "session_id": dbus.UInt16(0)},
                            signature="sv")
    errors = []

    def send():
        try:
            for _ in range(COUNT):
                obj.send_file(dbus.Array([piece], signature="a{sv}"), dbus_interface=SERVICE, timeout=60)
        except dbus.DBusException as e:
            errors.append(e)

    started = time.monotonic()
    sender = threading.Thread(target=send)
    sender.start()
    read_all(host, total)
    elapsed = time.monotonic() - started
    sender.join()
    stop(process, host)
    if errors:
        raise SystemExit(f"send_file failed: {errors[0]}")
    return elapsed


def turn_baseline(path, total):
    process = start([BASELINE, path, str(COUNT)])
    host = Host()
    started = time.monotonic()
    process.stdin.write(b"go\n")
    process.stdin.flush()
    read_all(host, total)
    elapsed = time.monotonic() - started
    stop(process, host)
    return elapsed


def main():
    device.set_up()
    path = "/tmp/bench.bin"
    with open(path, "wb") as f:
        f.write(os.urandom(FILE_MIB << 20))
    total = COUNT * (FILE_MIB << 20)
    rates = {"send_file": [], "writev": []}
    ratios = []
    print(f"{ROUNDS} rounds, each {COUNT} x {FILE_MIB} MiB to the host at super speed (dummy_hcd, TCG)")
    for i in range(ROUNDS):
        a = total / turn_daemon(path, total) / 1e6
        b = total / turn_baseline(path, total) / 1e6
        rates["send_file"].append(a)
        rates["writev"].append(b)
        ratios.append(a / b)
        print(f"  round {i + 1}: send_file {a:.1f} MB/s, writev loop {b:.1f} MB/s, ratio {a / b:.3f}", flush=True)
    run(GADGET, "stop")
    print(f"median send_file: {statistics.median(rates['send_file']):.1f} MB/s")
    print(f"median writev loop: {statistics.median(rates['writev']):.1f} MB/s")
    print(f"median of pairwise ratios send_file/writev: {statistics.median(ratios):.3f}")


if __name__ == "__main__":
    main()
