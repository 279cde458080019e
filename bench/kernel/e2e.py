"""The end-to-end benchmark with the stock kernel's FunctionFS as the sink (guest side).

Run by `scripts/bench-e2e --kernel` inside the VM of scripts/kernel-test; its arguments are
e2e_bench's. Sets up what a device's init would (a system bus, dummy_hcd at super speed, the
configfs gadget of deploy/gadget/usbd-gadget), starts build/bench/e2e/e2e_bench, which starts the
daemon and the minimal servers and takes turns between them on the same bulk IN endpoint, binds
the gadget once the daemon has written its descriptors, and has usbd-host drain that endpoint on
the host side for as long as the benchmark runs. Exit status: the benchmark's.

    scripts/kernel-test --build build -- python3 bench/kernel/e2e.py [E2E_BENCH_ARGS...]
"""

import os
import signal
import subprocess
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tests", "kernel"))
import device  # noqa: E402
import suite  # noqa: E402
from suite import GADGET, USBD, USBD_HOST, run  # noqa: E402

BENCH = os.path.join(suite.BUILD, "bench", "e2e", "e2e_bench")
MINIMAL = os.path.join(suite.BUILD, "bench", "e2e", "e2e_minimal")
# Scaled down for a CPU that qemu emulates without KVM, where a small request takes milliseconds
# and the guest's /tmp holds at most 1 GiB; arguments given later override these. Only the
# send_file and socket cases: the shared-memory and link cases need the emulator.
DEFAULTS = ["--cases", "file,socket", "--file-mib", "64", "--clients", "1,4,16", "--seconds", "2"]


def keep_tail(path, name, lines=200):
    """The end of a guest-side log, into the share that scripts/kernel-test keeps after the run."""
    try:
        with open(path, "rb") as f:
            tail = f.read().splitlines()[-lines:]
    except OSError:
        return
    with open(os.path.join(suite.OUT, name), "wb") as f:
        f.write(b"\n".join(tail) + b"\n")


def main():
    device.set_up()
    # The guest's /tmp shows the host's, where sockets of other runs may lie; as the daemon's
    # unit does, remove them first.
    for stale in ("/tmp/usbd-socket", "/tmp/usbd-bench-minimal-socket"):
        if os.path.lexists(stale):
            os.unlink(stale)
    # The daemon logs as the shipped unit lets it: without the default category's debug lines.
    env = dict(os.environ, USBD_BIN=USBD, E2E_MINIMAL_BIN=MINIMAL, QT_LOGGING_RULES="default.debug=false")
    env.pop("USBD_EMU_NAME", None)
    bench = subprocess.Popen([BENCH, *DEFAULTS, *sys.argv[1:]], env=env)
    reader = None
    try:
        # The daemon's descriptors first, then the controller; then the host enumerates and the
        # daemon sees the link come up, which the benchmark waits for.
        run(GADGET, "bind", "--timeout", "60", timeout=90)
        # Several transfers in flight, bytes discarded; it ends when the benchmark stops the
        # daemon (the device leaves the bus) or at the signal below.
        reader = subprocess.Popen([USBD_HOST, "receive", "--wait", "--timeout", "0"],
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        code = bench.wait()
    finally:
        if bench.poll() is None:
            bench.terminate()
            bench.wait()
        if reader is not None:
            if reader.poll() is None:
                reader.send_signal(signal.SIGINT)
            # Its summary, and how it ended: normally a failed transfer or the device gone, as
            # the benchmark's end takes the daemon and with it the function away.
            out = reader.communicate(timeout=30)[0].decode(errors="replace").strip()
            print("host side, usbd-host receive over the whole run:", out.replace("\n", "; "), flush=True)
        run(GADGET, "stop", check=False)
        keep_tail("/tmp/usbd.log", "usbd.log")
        keep_tail("/tmp/e2e-minimal.log", "e2e-minimal.log")
    return code


if __name__ == "__main__":
    sys.exit(main())
