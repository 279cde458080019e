"""Plug endurance on the stock kernel (guest side): the gadget bound and unbound N times, with a
send in each cycle.

Run by bench/plug-cycles inside the VM of scripts/kernel-test:

    python3 bench/kernel/plug_cycles.py [N]

Set up as a device's init would (a system bus, dummy_hcd, the configfs gadget of
deploy/gadget/usbd-gadget) with the unmodified daemon. Each cycle binds the controller, waits
for the host to enumerate the device (ids, the vendor interface, four bulk endpoints) and for
the daemon to report the link (charge_current_max 500: it has seen the host enable the
function), sends one request (a socket request with padding; every tenth cycle a D-Bus
send_file of two pieces) that must be answered sent and read byte-exact by the host, closes the
host's handle and unbinds. The daemon's resident memory, descriptors and threads are taken
after the first tenth of the cycles (at most 20) and after the last, both once the daemon has
settled after that cycle's unbind: they must stay flat (memory within 1 MiB), and descriptors
that differ are named. Exit status 0 when every cycle enumerated and every send arrived.
"""

import os
import random
import select
import statistics
import sys
import threading
import time
from collections import Counter

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "tests", "kernel"))
import device  # noqa: E402
import suite  # noqa: E402
from suite import PATH, SERVICE, UDC, Host, prop, wait_for  # noqa: E402

sys.path.insert(0, os.path.join(suite.SOURCE, "python"))
import usbd as client  # noqa: E402

import dbus  # noqa: E402
import usb.core  # noqa: E402

UDC_FILE = "/sys/kernel/config/usb_gadget/g1/UDC"
RSS_LIMIT_KB = 1024


def resources(pid):
    """The daemon's own resident memory (anonymous and shared: its code's pages come and go with
    the page cache), descriptors and threads."""
    with open(f"/proc/{pid}/status") as f:
        fields = dict(line.split(":", 1) for line in f)
    kb = {name: int(fields[name].split()[0]) for name in ("RssAnon", "RssShmem")}
    fd_dir = f"/proc/{pid}/fd"
    targets = []
    for name in os.listdir(fd_dir):
        try:
            targets.append(os.readlink(os.path.join(fd_dir, name)))
        except OSError:
            pass  # closed in between
    return {"rss_kb": kb["RssAnon"] + kb["RssShmem"], "threads": int(fields["Threads"]),
            "fds": len(targets), "targets": sorted(targets)}


def settled_resources(pid):
    """resources() once the daemon has finished with the unbind just made: the same descriptors
    and threads in two samples half a second apart (it closes and reopens files while it follows
    the link, so a sample taken in the middle says nothing about growth)."""
    last = resources(pid)
    for _ in range(40):
        time.sleep(0.5)
        now = resources(pid)
        if (now["targets"], now["threads"]) == (last["targets"], last["threads"]):
            return now
        last = now
    return last


def charge():
    return int(prop("charge_current_max"))


def socket_send(connection, rng, request_id):
    """Starts a socket request; returns its bytes as the host must see them, a function that
    waits for the daemon's answer (given once the host has read them) and one that says whether
    the answer is in."""
    data = rng.randbytes(rng.randint(1, 3000))
    padding = rng.randint(0, 1000)
    connection.send(client.SendRequest(request_id).add_memory(data, element_padding=padding))
    answered = lambda: bool(select.select([connection], [], [], 0)[0])  # noqa: E731
    return data + bytes(padding), lambda: connection.receive(timeout=60).sent, answered


def dbus_send(daemon, rng, cycle):
    """The same for a send_file of two pieces with padding, called on a thread of its own."""
    first, second = rng.randbytes(rng.randint(1, 20000)), rng.randbytes(rng.randint(1, 20000))
    path = "/tmp/plug-cycle.bin"
    with open(path, "wb") as f:
        f.write(first + second)
    pieces = [dbus.Dictionary({"path": dbus.String(path), "offset": dbus.Int64(offset),
                               "size": dbus.Int32(size), "element_alignment": dbus.Int32(0),
                               "element_padding": dbus.Int32(7), "session_id": dbus.UInt16(cycle)},
                              signature="sv")
              for offset, size in ((0, len(first)), (len(first), len(second)))]
    outcome = []

    def call():
        try:
            daemon.send_file(dbus.Array(pieces, signature="a{sv}"), dbus_interface=SERVICE, timeout=60)
            outcome.append(True)
        except dbus.DBusException:
            outcome.append(False)
    thread = threading.Thread(target=call)
    thread.start()

    def answer():
        thread.join()
        os.unlink(path)
        return outcome[0]
    return first + bytes(7) + second + bytes(7), answer, lambda: not thread.is_alive()


def receive(host, size, answered):
    """The bytes of a send, or None when the daemon failed it before sending a byte: it fails a
    send at once while it has not yet seen the host enable the function, which a send made right
    after enumeration can race. The first read asks for one packet only, so that a read that
    ends by time loses nothing."""
    packet = host.ep_in.wMaxPacketSize
    while True:
        try:
            data = bytearray(host.dev.read(host.ep_in, packet, 200))
            break
        except usb.core.USBTimeoutError:
            if answered():
                return None
    while len(data) < size:
        chunk = size - len(data)
        data += bytes(host.dev.read(host.ep_in, chunk + (-chunk) % packet, 60000))
    return bytes(data)


def main():
    cycles = int(sys.argv[1]) if len(sys.argv) > 1 else 1000
    rng = random.Random(cycles)
    device.set_up()
    suite.small_pages_only()
    suite.start_daemon()
    pid = suite.state["usbd"].pid
    wait_for(lambda: os.path.exists(client.DEFAULT_SOCKET_PATH), what="the daemon's socket")
    connection = client.Connection()
    daemon = dbus.SystemBus().get_object(SERVICE, PATH)
    warm_up = max(1, min(20, cycles // 10))
    baseline = None
    durations, sent_bytes, failures, early = [], 0, [], 0
    started = time.monotonic()
    for cycle in range(1, cycles + 1):
        began = time.monotonic()
        with open(UDC_FILE, "w") as f:
            f.write(UDC)
        host = Host(timeout=60)
        dev = host.dev
        if (dev.idVendor, dev.idProduct, host.intf.bInterfaceClass, host.intf.bNumEndpoints) != \
                (suite.VENDOR, suite.PRODUCT, 0xFF, 4):
            failures.append(f"cycle {cycle}: the host saw {dev.idVendor:04x}:{dev.idProduct:04x} "
                            f"class {host.intf.bInterfaceClass:02x}, {host.intf.bNumEndpoints} endpoints")
        # The daemon has seen an enable when it reports the host's MaxPower; after an unbind it
        # may still show the last one (the kernel can fold the disable into the unbind that
        # follows it), so a send can still come too early and is then made again.
        wait_for(lambda: charge() == 500, 60, f"cycle {cycle}: the daemon to see the host")
        for attempt in range(300):
            if cycle % 10 == 0:
                expected, answer, answered = dbus_send(daemon, rng, cycle)
            else:
                expected, answer, answered = socket_send(connection, rng, cycle * 1000 + attempt)
            # The daemon answers once the host has read it all.
            try:
                received = receive(host, len(expected), answered)
            except usb.core.USBError as e:
                received = f"nothing ({e})"
            sent = answer()
            if received is not None or sent:
                break
            early += 1
            time.sleep(0.1)
        if not sent or received != expected:
            failures.append(f"cycle {cycle}: the send {'failed' if not sent else 'arrived changed'}")
        else:
            sent_bytes += len(received)
        host.close()
        with open(UDC_FILE, "w") as f:
            f.write("\n")
        durations.append(time.monotonic() - began)
        if cycle == warm_up:
            baseline = settled_resources(pid)
        if cycle % 100 == 0:
            print(f"plug-cycles: {cycle} cycles, {len(failures)} failed", flush=True)
        if failures and len(failures) >= 10:
            break
    end = settled_resources(pid)
    connection.close()
    suite.tearDownModule()
    for line in failures:
        print("failure:", line)
    flat = (end["rss_kb"] - baseline["rss_kb"] <= RSS_LIMIT_KB and end["fds"] <= baseline["fds"]
            and end["threads"] <= baseline["threads"])
    print(f"plug-cycles: {len(durations)} cycles in {(time.monotonic() - started) / 60:.1f} minutes "
          f"(median {statistics.median(durations):.2f} s), {len(durations) - len(failures)} with "
          f"enumeration and a send that arrived ({sent_bytes} bytes; {early} sends made again, "
          f"failed at once before the daemon had seen the host); daemon after cycle {warm_up} "
          f"and at the end: own memory {baseline['rss_kb']} -> {end['rss_kb']} kB, descriptors "
          f"{baseline['fds']} -> {end['fds']}, threads {baseline['threads']} -> {end['threads']}: "
          f"{'flat' if flat else 'GREW'}")
    if end["targets"] != baseline["targets"]:
        gone = sorted((Counter(baseline["targets"]) - Counter(end["targets"])).elements())
        new = sorted((Counter(end["targets"]) - Counter(baseline["targets"])).elements())
        print(f"plug-cycles: descriptors only after cycle {warm_up}: {gone}; only at the end: {new}")
    return 0 if not failures and flat and len(durations) == cycles else 1


if __name__ == "__main__":
    sys.exit(main())
