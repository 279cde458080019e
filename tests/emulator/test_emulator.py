#!/usr/bin/python3
"""System tests of usbd-emu and usbd-emuctl. Need root and /dev/fuse.

Usage: test_emulator.py BUILD_DIR [unittest args]. Each test runs its own emulator (named
uniquely, so tests may run in parallel) with ffs_agent.py inside as the device-side client.
"""

import errno
import json
import os
import queue
import random
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest

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

def interface(i_interface):
    return bytes([9, 4, 0, 0, 4, 0xFF, 0, 0, i_interface])


def endpoint(address, max_packet):
    return bytes([9, 5, address, 2]) + struct.pack("<H", max_packet) + bytes([0, 0, 0])


def companion(max_burst):
    return bytes([6, 0x30, max_burst, 0, 0, 0])


ADDRESSES = [0x01, 0x02, 0x81, 0x82]
FS = interface(1) + b"".join(endpoint(a, 64) for a in ADDRESSES)
HS = interface(1) + b"".join(endpoint(a, 512) for a in ADDRESSES)
SS = interface(0) + b"".join(endpoint(a, 1024) + companion(15 if a == 0x81 else 0)
                             for a in ADDRESSES)


def descriptors(magic=3, flags=7, counts=(5, 5, 9), body=FS + HS + SS, length=None):
    head = struct.pack("<III", magic, 0, flags) + b"".join(struct.pack("<I", c) for c in counts)
    blob = bytearray(head + body)
    struct.pack_into("<I", blob, 4, len(blob) if length is None else length)
    return bytes(blob)


def strings(text=b"CTRL Interface\0", length=None, str_count=1, lang_count=1):
    blob = bytearray(struct.pack("<IIIIH", 2, 0, str_count, lang_count, 0x0409) + text)
    struct.pack_into("<I", blob, 4, len(blob) if length is None else length)
    return bytes(blob)


DESCRIPTORS = descriptors()
STRINGS = strings()


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
        if command[-1] == AGENT:
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

    def ctl(self, *args, input=None):
        return subprocess.run([EMUCTL, "--name", self.name, *args], input=input,
                              capture_output=True, timeout=30)

    def ok(self, *args, input=None):
        r = self.ctl(*args, input=input)
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
        emu = self.emulator()
        ep0 = emu.open(FFS + "/ep0")
        self.assertEqual(emu.call("listdir", path=FFS)["names"], ["ep0"])
        self.assertEqual(emu.call("open", path=FFS + "/ep1")["errno"], errno.ENOENT)
        self.assertEqual(emu.call("read", fd=ep0, size=12)["errno"], errno.EBADFD)

        bad_endpoint = bytearray(FS)
        bad_endpoint[9] = 8  # the first endpoint descriptor claims 8 bytes
        bad_interface = bytearray(FS)
        bad_interface[0] = 7
        refused = {
            "bad magic": descriptors(magic=4),
            "length field too small": descriptors(length=182),
            "length field too large": descriptors(length=184),
            "endpoint of 8 bytes": descriptors(counts=(5, 0, 0), flags=1, body=bytes(bad_endpoint)),
            "interface of 7 bytes": descriptors(counts=(5, 0, 0), flags=1, body=bytes(bad_interface)),
            "trailing byte": descriptors(body=FS + HS + SS + b"\0"),
            "count beyond the data": descriptors(counts=(6, 5, 9)),
            "endpoint count differs": descriptors(counts=(5, 4, 9), body=FS + HS[:-9] + SS),
            "no descriptors": descriptors(flags=0, counts=(), body=b"\0" * 4),
            "endpoint 0": descriptors(counts=(2, 0, 0), flags=1, body=interface(0) + endpoint(0x80, 64)),
            "device descriptor": descriptors(counts=(1, 0, 0), flags=1, body=bytes([18, 1]) + bytes(16)),
            "shorter than a header": DESCRIPTORS[:12],
        }
        for what, blob in refused.items():
            r = emu.call("write", fd=ep0, hex=blob.hex())
            self.assertEqual((r["ret"], r.get("errno")), (-1, errno.EINVAL), what)
        # Unknown flags: refused with ENOSYS, as the kernel's FunctionFS documents.
        r = emu.call("write", fd=ep0, hex=descriptors(flags=7 | 0x100).hex())
        self.assertEqual(r.get("errno"), errno.ENOSYS)
        self.assertEqual(emu.status()["state"], "waiting-descriptors")

        self.assertEqual(emu.call("write", fd=ep0, hex=DESCRIPTORS.hex())["ret"], 183)
        self.assertEqual(emu.status()["state"], "waiting-strings")
        self.assertEqual(emu.ctl("wait-ready", "--timeout", "0.2").returncode, 4)
        refused = {
            "no terminator": strings(text=b"CTRL Interface"),
            "wrong length": strings(length=34),
            "bad magic": struct.pack("<I", 5) + STRINGS[4:],
            "fewer strings than referenced": strings(str_count=0, lang_count=0, text=b""),
            "trailing byte": strings(text=b"CTRL Interface\0\0"),
        }
        for what, blob in refused.items():
            r = emu.call("write", fd=ep0, hex=blob.hex())
            self.assertEqual((r["ret"], r.get("errno")), (-1, errno.EINVAL), what)
        self.assertEqual(emu.call("write", fd=ep0, hex=STRINGS.hex())["ret"], 33)
        emu.ok("wait-ready", "--timeout", "1")

        self.assertEqual(emu.call("listdir", path=FFS)["names"], ["ep0", "ep1", "ep2", "ep3", "ep4"])
        st = emu.status()
        self.assertTrue(st["ready"])
        self.assertEqual([(i["class"], i["endpoints"], i["string"]) for i in st["interfaces"]],
                         [(0xFF, 4, "CTRL Interface")])
        self.assertEqual([(e["file"], e["address"], e["type"], e["max_packet"]) for e in st["endpoints"]],
                         [("ep%d" % (n + 1), a, "bulk", [64, 512, 1024]) for n, a in enumerate(ADDRESSES)])
        self.assertIn('function ready: 1 interface (class 0xff, 4 endpoints: 0x01 0x02 0x81 0x82 bulk), '
                      'string 1 "CTRL Interface"', emu.logtext())
        text = emu.ok("status")
        self.assertIn("CTRL Interface", text)

        # Closing every file takes the function down, as in the kernel; the legacy layout
        # (magic 1, full and high speed only) is accepted by the next client.
        emu.call("close", fd=ep0)
        self.assertEqual(emu.status()["state"], "waiting-descriptors")
        ep0 = emu.open(FFS + "/ep0")
        legacy = struct.pack("<IIII", 1, 0, 5, 5) + FS + HS
        legacy = legacy[:4] + struct.pack("<I", len(legacy)) + legacy[8:]
        self.assertEqual(emu.call("write", fd=ep0, hex=legacy.hex())["ret"], len(legacy))
        self.assertEqual(emu.call("write", fd=ep0, hex=STRINGS.hex())["ret"], 33)
        self.assertEqual(emu.status()["endpoints"][2]["max_packet"], [64, 512, 0])

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
        self.assertEqual(bytes.fromhex(emu.call("readfile", path=UDC + "/state")["hex"]), b"configured\n")
        self.assertEqual(bytes.fromhex(emu.call("readfile", path=UDC + "/current_speed")["hex"]), b"high-speed\n")
        self.assertEqual(bytes.fromhex(emu.call("readfile", path=MAXPOWER)["hex"]), b"500\n")
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
        self.assertEqual(bytes.fromhex(emu.call("readfile", path=UDC + "/state")["hex"]), b"not attached\n")
        self.assertEqual(bytes.fromhex(emu.call("readfile", path=UDC + "/current_speed")["hex"]), b"UNKNOWN\n")

        # A SETUP the device does not answer: its next read of a host-to-device request with
        # no data stage returns 0, a read for a device-to-host request stalls.
        emu.ok("event", "setup", "0000000000000000")
        self.assertEqual(event_type(emu.call("read", fd=ep0, size=12)["hex"]), 4)
        self.assertEqual(emu.call("read", fd=ep0, size=12)["ret"], 0)
        emu.ok("event", "setup", "8006000100001200")
        emu.call("read", fd=ep0, size=12)
        self.assertEqual(emu.call("read", fd=ep0, size=12)["errno"], errno.EL2HLT)

        self.assertEqual(emu.ctl("event", "bogus").returncode, 2)
        emu.ok("udc-state", "suspended")
        emu.ok("speed", "super-speed-plus")
        emu.ok("maxpower", "900")
        self.assertEqual(bytes.fromhex(emu.call("readfile", path=MAXPOWER)["hex"]), b"900\n")
        self.assertEqual(emu.status()["udc"], {"name": "emu-udc.0", "state": "suspended",
                                               "speed": "super-speed-plus", "maxpower": "900"})

    def test_in_endpoint_follows_the_host(self):
        emu = self.emulator()
        emu.make_ready()
        ep3 = emu.open(FFS + "/ep3")
        waiting = emu.start("write", fd=ep3, size=5000)
        self.assertTrue(emu.pending(waiting), "IN write went through before the host enabled it")
        emu.ok("plug")
        self.assertEqual(emu.wait_reply(waiting)["ret"], 5000)

        emu.ok("short", "1000")
        self.assertEqual(emu.call("write", fd=ep3, size=5000)["ret"], 1000)
        self.assertEqual(emu.call("write", fd=ep3, size=5000)["ret"], 5000)
        # A limit past the first 1 MiB request: the call ends inside its second request.
        emu.ok("short", str(1536 * 1024))
        self.assertEqual(emu.call("write", fd=ep3, size=4 << 20)["ret"], 1536 * 1024)

        emu.ok("stall")
        held = emu.start("write", fd=ep3, size=100)
        self.assertTrue(emu.pending(held))
        self.assertEqual(emu.status()["endpoints"][2]["waiting"], 1)
        emu.ok("release")
        self.assertEqual(emu.wait_reply(held)["ret"], 100)

        emu.ok("stall")
        held = emu.start("write", fd=ep3, size=100)
        self.assertTrue(emu.pending(held))
        emu.call("signal", target=held)
        self.assertEqual(emu.wait_reply(held)["errno"], errno.EINTR)

        held = emu.start("write", fd=ep3, size=100)
        self.assertTrue(emu.pending(held))
        emu.ok("unplug")
        self.assertEqual(emu.wait_reply(held)["errno"], errno.ESHUTDOWN)
        emu.ok("release")

        st = emu.status()["endpoints"][2]
        # Interrupted and failed writes delivered nothing and do not count.
        self.assertEqual((st["bytes"], st["writes"]), (5000 + 1000 + 5000 + 1536 * 1024 + 100, 5))
        ep1 = emu.open(FFS + "/ep1")
        self.assertEqual(emu.call("ioctl", fd=ep1, cmd=PHYS_IOCTL)["errno"], errno.ENOTTY)
        self.assertEqual(emu.call("ioctl", fd=ep3, cmd=0x1234)["errno"], errno.ENOTTY)

    def test_physical_address_transfers(self):
        with tempfile.TemporaryDirectory() as tmp:
            capture = os.path.join(tmp, "capture")
            emu = self.emulator("--capture", capture, command=agent_with_hal())
            emu.make_ready()
            ep3 = emu.open(FFS + "/ep3")
            size = 3 << 20
            mem = emu.call("halmem", lib=HAL_LIB, size=size, seed=7)
            self.assertEqual(mem["ret"], 0, mem)
            data, phys = random.Random(7).randbytes(size), mem["phys"]

            def phys_send(address, length, **kw):
                return emu.start("ioctl", fd=ep3, cmd=PHYS_IOCTL, phys=address, length=length, **kw)

            # Before the host enables the function the request waits, as a write does.
            first = phys_send(phys + 100, 2 << 20)
            self.assertTrue(emu.pending(first))
            emu.ok("plug")
            self.assertEqual(emu.wait_reply(first)["ret"], 2 << 20)
            emu.ok("short", "1000")
            self.assertEqual(emu.wait_reply(phys_send(phys, 5000))["ret"], 1000)
            emu.ok("stall")
            held = phys_send(phys + size - 10, 10)
            self.assertTrue(emu.pending(held))
            emu.ok("release")
            self.assertEqual(emu.wait_reply(held)["ret"], 10)
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

    def test_capture_is_byte_exact(self):
        with tempfile.TemporaryDirectory() as tmp:
            first, second = os.path.join(tmp, "a"), os.path.join(tmp, "b")
            emu = self.emulator("--capture", first)
            emu.make_ready()
            ep3 = emu.open(FFS + "/ep3")
            emu.ok("plug")
            sizes = [3 * 1024 * 1024 + 7, 5 * 1024 * 1024 + 4093, 123457]
            self.assertEqual(emu.call("writev", fd=ep3, sizes=sizes, seed=1)["ret"], sum(sizes))
            with open(first, "rb") as f:
                self.assertTrue(f.read() == random.Random(1).randbytes(sum(sizes)))

            emu.ok("capture", second)
            self.assertEqual(emu.call("write", fd=ep3, size=70000, seed=2)["ret"], 70000)
            emu.ok("capture-off")
            self.assertEqual(emu.call("write", fd=ep3, size=100, seed=3)["ret"], 100)
            with open(second, "rb") as f:
                self.assertTrue(f.read() == random.Random(2).randbytes(70000))
            self.assertEqual(os.path.getsize(first), sum(sizes))
            self.assertEqual(emu.status()["endpoints"][2]["bytes"], sum(sizes) + 70100)
            self.assertEqual(emu.finish(), 0)
            self.assertIn("ep3 totals: %d bytes in 3 writes" % (sum(sizes) + 70100), emu.logtext())

    def test_out_endpoint_reads_what_the_host_pushes(self):
        emu = self.emulator()
        emu.make_ready()
        ep1 = emu.open(FFS + "/ep1")
        emu.ok("plug")
        reader = emu.start("read", fd=ep1, size=65536)
        self.assertTrue(emu.pending(reader))
        payload = random.Random(4).randbytes(5000)
        with tempfile.NamedTemporaryFile() as f:
            f.write(payload)
            f.flush()
            emu.ok("ep1-push", f.name)
        self.assertEqual(bytes.fromhex(emu.wait_reply(reader)["hex"]), payload)

        big = random.Random(5).randbytes(200000)  # more than one control message
        emu.ok("ep1-push", "-", input=big)
        emu.ok("ep1-eof")
        got = b"".join(bytes.fromhex(emu.call("read", fd=ep1, size=150000)["hex"]) for _ in range(2))
        self.assertEqual(got, big)
        self.assertEqual(emu.call("read", fd=ep1, size=10)["ret"], 0)

        reader = emu.start("read", fd=ep1, size=10)
        self.assertTrue(emu.pending(reader))
        emu.ok("unplug")
        self.assertEqual(emu.wait_reply(reader)["errno"], errno.ESHUTDOWN)

    def test_exec_ios_and_bus(self):
        emu = self.emulator("--dbus")
        r = emu.ctl("exec", "--", "cat", "/run/mfi/link-state")
        self.assertEqual((r.returncode, r.stdout), (0, b"0\n"))
        emu.ok("ios", "wifi")
        self.assertEqual(emu.ctl("exec", "--", "cat", "/run/mfi/link-state").stdout, b"2\n")
        self.assertEqual(emu.status()["ios"], "wifi")
        self.assertEqual(emu.ctl("exec", "--", "sh", "-c", "exit 7").returncode, 7)
        self.assertEqual(emu.ctl("exec", "--", "/nonexistent").returncode, 127)
        r = emu.ctl("exec", "--", "dbus-send", "--system", "--print-reply", "--dest=org.freedesktop.DBus",
                    "/org/freedesktop/DBus", "org.freedesktop.DBus.GetId")
        self.assertEqual(r.returncode, 0, r.stderr)
        r = emu.ctl("exec", "--", "dbus-send", "--session", "--print-reply", "--dest=org.freedesktop.DBus",
                    "/org/freedesktop/DBus", "org.freedesktop.DBus.GetId")
        self.assertEqual(r.returncode, 0, r.stderr)
        # Inside, pid 1 is the emulator's init and /proc shows only the namespace.
        r = emu.ctl("exec", "--", "cat", "/proc/1/comm")
        self.assertEqual(r.stdout, b"usbd-emu-init\n")

    def test_errors_of_the_control_client(self):
        r = subprocess.run([EMUCTL, "--name", "no-such-emulator-%d" % os.getpid(), "status"],
                           capture_output=True)
        self.assertEqual(r.returncode, 3)
        self.assertIn(b"no emulator named", r.stderr)
        emu = self.emulator()
        self.assertEqual(emu.ctl("plug").returncode, 1)  # function not ready
        self.assertEqual(emu.ctl("frobnicate").returncode, 2)
        self.assertEqual(emu.ctl("short", "x").returncode, 2)
        dup = subprocess.run([EMU, "--name", emu.name, "--", "true"], capture_output=True, timeout=10)
        self.assertEqual(dup.returncode, 125)
        self.assertIn(b"already running", dup.stderr)

    def test_exit_status_and_cleanup(self):
        self.assertEqual(subprocess.run([EMU, "--name", "st%d" % os.getpid(), "--", "sh", "-c", "exit 42"],
                                        capture_output=True, timeout=10).returncode, 42)
        self.assertEqual(subprocess.run([EMU, "--name", "st%d" % os.getpid(), "--", "sh", "-c", "kill -TERM $$"],
                                        capture_output=True, timeout=10).returncode, 128 + 15)

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
            emu.call("writefile", path="/tmp/" + marker, text="x")
            # A process that outlives the command, and one blocked in a FunctionFS read.
            emu.ok("exec", "--", "sh", "-c", "sleep 300 >/dev/null 2>&1 &")
            emu.start("read", fd=ep0, size=12)
            init_pid = emu.status()["init_pid"]
            pidns = os.readlink("/proc/%d/ns/pid" % init_pid)
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
            while time.time() < deadline and self.namespace_members(pidns):
                time.sleep(0.05)
            self.assertEqual(self.namespace_members(pidns), [], how)
            self.assertFalse(os.path.exists("/tmp/" + marker))
            self.assertEqual(emu.ctl("status").returncode, 3, how)
        with open("/proc/self/mountinfo") as f:
            self.assertEqual(sorted(line.split(" ", 4)[4] for line in f), mounts_before)

    @staticmethod
    def namespace_members(pidns):
        members = []
        for pid in os.listdir("/proc"):
            if pid.isdigit():
                try:
                    if os.readlink("/proc/%s/ns/pid" % pid) == pidns:
                        members.append(int(pid))
                except OSError:
                    pass
        return members


if __name__ == "__main__":
    unittest.main()
