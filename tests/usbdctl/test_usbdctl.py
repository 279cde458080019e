"""usbdctl against the real daemon on the device emulator: what reaches the host, what the user
reads, and the exit status of each common failure."""

import os
import pty
import queue
import re
import signal
import subprocess
import sys
import tempfile
import threading
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "support"))

from usbdtest import BUILD_DIR, EMUCTL, USBD, DaemonTestCase, Emulator, wait_for  # noqa: E402

USBDCTL = os.environ.get("USBDCTL_BIN", os.path.join(BUILD_DIR, "usbdctl"))
# Files the daemon opens must be visible inside the emulator, whose /tmp is private.
WORK_DIR = os.environ.get("USBDCTL_WORK_DIR", BUILD_DIR)

STAMP = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}"
LINK_DOWN = "link down: no host to send to (link_type: none (0))"
NOT_SENT = "usbd could not send the request (link_type: usb (1))"


class LineReader:
    """Collects the lines a process prints, so that a test can wait for them with a limit."""

    def __init__(self, stream):
        self.lines = queue.Queue()
        self._thread = threading.Thread(target=self._run, args=(stream,), daemon=True)
        self._thread.start()

    def _run(self, stream):
        for line in stream:
            self.lines.put(line.decode().rstrip("\n"))

    def next(self, timeout=10):
        return self.lines.get(timeout=timeout)

    def until(self, wanted, timeout=10):
        """Reads lines until every pattern in wanted has matched one; returns all lines read."""
        seen, missing = [], list(wanted)
        while missing:
            line = self.next(timeout)
            seen.append(line)
            missing = [p for p in missing if not re.search(p, line)]
        return seen

    def drain(self, quiet=0.5):
        """The lines printed until the process has been quiet for `quiet` seconds."""
        seen = []
        while True:
            try:
                seen.append(self.next(quiet))
            except queue.Empty:
                return seen


class UsbdctlCase(DaemonTestCase):

    def setUp(self):
        super().setUp()
        files = tempfile.TemporaryDirectory(prefix="usbdctl-test-", dir=WORK_DIR)
        self.addCleanup(files.cleanup)
        self.dir = files.name
        self.env = dict(os.environ,
                        DBUS_SYSTEM_BUS_ADDRESS=f"unix:path={self.emu.inside('/run/dbus/system_bus_socket')}")

    def usbdctl(self, *args, timeout=30, **kwargs):
        return subprocess.run([USBDCTL, *map(str, args)], env=self.env, capture_output=True,
                              timeout=timeout, **kwargs)

    def socket_args(self):
        return ["--socket", self.emu.socket_path()]

    def file(self, name, data):
        path = os.path.join(self.dir, name)
        with open(path, "wb") as f:
            f.write(data)
        return path

    def plug(self):
        self.emu.ctl("plug", "--speed", "super-speed", "--maxpower", "500")
        wait_for(lambda: "link_type: usb (1)" in self.usbdctl("status").stdout.decode(),
                 what="link type usb")

    def captured_after(self, start, length, timeout=10):
        wait_for(lambda: len(self.emu.capture()) >= start + length, timeout, what=f"{length} bytes at the host")
        return self.emu.capture()[start:]

    def assert_status(self, result, code, stderr_text=None):
        message = f"exit {result.returncode}, stdout {result.stdout!r}, stderr {result.stderr!r}"
        self.assertEqual(result.returncode, code, message)
        if stderr_text is not None:
            self.assertIn(stderr_text, result.stderr.decode(), message)


class WithDaemon(UsbdctlCase):

    def test_status_and_watch_follow_the_link(self):
        # The daemon announces some values more than once per plug; repeats are no changes and
        # must not be printed. A plug may show a real blip of the limit (500, 0, 500) when the
        # host's BIND is handled while the controller already reads "configured".
        watch = subprocess.Popen([USBDCTL, "watch"], env=self.env, stdout=subprocess.PIPE,
                                 stderr=subprocess.DEVNULL)
        self.addCleanup(watch.stdout.close)
        self.addCleanup(watch.wait)
        self.addCleanup(watch.terminate)
        lines = LineReader(watch.stdout)
        # Through a pipe, too, every line arrives as it is printed.
        first = [lines.next() for _ in range(3)]
        self.assertRegex(first[0], f"^{STAMP} link_type: none \\(0\\)$")
        self.assertRegex(first[1], f"^{STAMP} usb_super_speed: no$")
        self.assertRegex(first[2], f"^{STAMP} charge_current_max: 0 mA$")

        def no_repeats(seen):
            last = {}
            for line in seen:
                name, value = line.split(" ", 2)[2].split(": ", 1)
                self.assertNotEqual(last.get(name), value, seen)
                last[name] = value
            return last

        self.emu.ctl("plug", "--speed", "super-speed", "--maxpower", "500")
        plugged = lines.until([r"link_type: usb \(1\)$", r"usb_super_speed: yes$", r"charge_current_max: 500 mA$"])
        plugged += lines.drain()
        self.assertEqual(no_repeats(plugged).get("charge_current_max"), "500 mA", plugged)
        status = self.usbdctl("status")
        self.assert_status(status, 0)
        self.assertEqual(status.stdout.decode(),
                         "link_type: usb (1)\nusb_super_speed: yes\ncharge_current_max: 500 mA\n")

        self.emu.ctl("unplug")
        unplugged = lines.until([r"link_type: none \(0\)$", r"usb_super_speed: no$", r"charge_current_max: 0 mA$"])
        unplugged += lines.drain()
        self.assertEqual(len(unplugged), 3, unplugged)
        no_repeats(unplugged)

    def test_send_file_options_reach_the_host_and_progress_shows_only_on_a_terminal(self):
        self.plug()
        a = os.urandom(1000)
        b = os.urandom(300)
        self.file("a.bin", a)
        self.file("b.bin", b)
        start = len(self.emu.capture())
        # Relative names, from the files' folder: the daemon must still find them.
        result = self.usbdctl("send-file", "--offset", 100, "--size", 200, "--padding", 5,
                              "a.bin", "b.bin", cwd=self.dir)
        self.assert_status(result, 0)
        self.assertEqual((result.stdout, result.stderr), (b"", b""))
        expected = a[100:300] + bytes(5) + b[100:300] + bytes(5)
        self.assertEqual(self.captured_after(start, len(expected)), expected)

        start = len(self.emu.capture())
        master, slave = pty.openpty()
        try:
            process = subprocess.Popen([USBDCTL, "send-file", "a.bin"], env=self.env, cwd=self.dir,
                                       stdout=slave, stderr=subprocess.DEVNULL)
            os.close(slave)
            output = b""
            while True:
                try:
                    chunk = os.read(master, 4096)
                except OSError:  # EIO: the terminal's last writer has gone
                    break
                if not chunk:
                    break
                output += chunk
            self.assertEqual(process.wait(timeout=30), 0)
        finally:
            os.close(master)
        self.assertRegex(output.decode(), r"sent 1000 B in [0-9.]+ s \([0-9.]+ [KMG]?i?B/s\)")
        self.assertEqual(self.captured_after(start, len(a)), a)

    def test_send_data_and_socket_send_keep_the_order_of_their_bytes(self):
        self.plug()
        start = len(self.emu.capture())
        self.assert_status(self.usbdctl("send-data", "hello"), 0)
        self.assert_status(self.usbdctl("send-data", "--hex", "00 ff", "--length", 1), 0)
        middle = os.urandom(700)
        path = self.file("c.bin", middle)
        result = self.usbdctl("socket-send", *self.socket_args(), "--text", "AB", "--file", path,
                              "--hex", "0d0a", "--padding", 1, "--id", 77)
        self.assert_status(result, 0)
        self.assertEqual(result.stdout, b"")
        expected = b"hello" + b"\0" + b"AB\0" + middle + b"\0" + b"\r\n\0"
        self.assertEqual(self.captured_after(start, len(expected)), expected)

        # An empty request is answered too; data beyond one request is refused before sending.
        self.assert_status(self.usbdctl("socket-send", *self.socket_args()), 0)
        big = self.file("big.bin", bytes(5000))
        self.assert_status(self.usbdctl("socket-send", *self.socket_args(), "--file", big), 1, "4096")
        self.assert_status(self.usbdctl("send-data", "x" * 256), 1, "255")
        self.assertEqual(len(self.emu.capture()), start + len(expected))

    def test_common_failures_have_their_own_status_and_text(self):
        path = self.file("a.bin", b"data")
        self.assert_status(self.usbdctl("send-file", os.path.join(self.dir, "missing.bin")), 4, "missing.bin")
        self.assert_status(self.usbdctl("send-file", "--bogus", path), 1, "--bogus")
        self.assert_status(self.usbdctl("send-file", path), 5, LINK_DOWN)
        self.assert_status(self.usbdctl("send-data", "x"), 5, LINK_DOWN)
        self.assert_status(self.usbdctl("socket-send", *self.socket_args(), "--text", "x"), 5, LINK_DOWN)

        self.plug()
        self.emu.ctl("stall")
        self.addCleanup(self.emu.ctl, "release", check=False)
        self.assert_status(self.usbdctl("send-file", "--timeout", 1, path), 7, "no answer from usbd within 1.0 s")
        self.emu.ctl("release")
        wait_for(lambda: self.emu.capture().endswith(b"data"), what="the late transfer")

        # An interrupt aborts the stalled transfer, and its requester hears that it failed.
        self.emu.ctl("stall")
        sender = subprocess.Popen([USBDCTL, "socket-send", *self.socket_args(), "--text", "stuck"],
                                  env=self.env, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(lambda: sender.poll() is None and sender.kill())
        wait_for(lambda: self._ep3()["waiting"] > 0, what="the transfer to hang at the host")
        self.assert_status(self.usbdctl("interrupt", *self.socket_args()), 0)
        _, stderr = sender.communicate(timeout=20)
        self.assertEqual(sender.returncode, 5, stderr)
        self.assertIn(NOT_SENT.encode(), stderr)

    def test_requests_the_daemon_would_fail_are_refused_here_with_the_reason(self):
        self.plug()
        start = len(self.emu.capture())
        data = self.file("d.bin", b"0123456789")
        self.assert_status(self.usbdctl("send-data", "--length", 5, "abc"), 1, "--length 5 is more than the 3 bytes")
        self.assert_status(self.usbdctl("send-file", self.file("empty.bin", b"")), 4, "empty.bin: empty")
        self.assert_status(self.usbdctl("send-file", self.dir), 4, "not a regular file")
        fifo = os.path.join(self.dir, "fifo")
        os.mkfifo(fifo)
        self.assert_status(self.usbdctl("send-file", fifo), 4, "not a regular file")
        # 32 segments at most: 33 pieces, or 17 with padding; the socket's entries count alike.
        self.assert_status(self.usbdctl("send-file", *[data] * 33), 1, "33 pieces need 33 segments")
        self.assert_status(self.usbdctl("send-file", "--padding", 1, *[data] * 17), 1,
                           "17 pieces with padding need 34 segments; usbd sends at most 32")
        texts = [arg for _ in range(17) for arg in ("--text", "x")]
        self.assert_status(self.usbdctl("socket-send", *self.socket_args(), "--padding", 1, *texts), 1,
                           "34 segments")
        self.assertEqual(len(self.emu.capture()), start)

        # The limits themselves go through.
        self.assert_status(self.usbdctl("send-file", *[data] * 32), 0)
        self.assert_status(self.usbdctl("send-file", "--padding", 2, *[data] * 16), 0)
        self.assert_status(self.usbdctl("socket-send", *self.socket_args(), "--padding", 1, *texts[2:]), 0)
        expected = b"0123456789" * 32 + (b"0123456789" + bytes(2)) * 16 + b"x\0" * 16
        self.assertEqual(self.captured_after(start, len(expected)), expected)

        # A file usbdctl can read but the daemon cannot see (the emulator's /tmp is private).
        with tempfile.NamedTemporaryFile(dir="/tmp") as hidden:
            hidden.write(b"only outside")
            hidden.flush()
            result = self.usbdctl("send-file", hidden.name)
        self.assert_status(result, 5, NOT_SENT)
        self.assertIn(b"by its absolute path", result.stderr)

    def test_watch_ends_when_the_daemon_or_the_bus_goes_away(self):
        def watch_until_killed(victim, text):
            watch = subprocess.Popen([USBDCTL, "watch"], env=self.env, stdout=subprocess.PIPE,
                                     stderr=subprocess.PIPE)
            self.addCleanup(lambda: watch.poll() is None and watch.kill())
            watch.stdout.readline()  # the first values are out: the watch is under way
            os.kill(self.emu.pid_of(victim), signal.SIGKILL)
            _, stderr = watch.communicate(timeout=10)
            self.assertEqual(watch.returncode, 8, stderr)
            self.assertRegex(stderr.decode(), f"^usbdctl: {STAMP}: {text}, watch ends\n$")

        # The bus first, while the daemon stays; then the daemon, on a fresh emulator. The
        # emulator ends (and takes its bus with it) when its command ends, so there the daemon
        # runs under a shell that outlives it: the bus must stay to say that usbd left.
        watch_until_killed("dbus-daemon", "lost the connection to the system bus")
        self.emu.stop()
        self.emu = Emulator(command=["sh", "-c", f'"$0"; exec sleep 600', USBD])
        self.emu.wait_control()
        self.emu.wait_ready()
        self.emu.wait_service()
        self.env["DBUS_SYSTEM_BUS_ADDRESS"] = f"unix:path={self.emu.inside('/run/dbus/system_bus_socket')}"
        watch_until_killed("usbd", "usbd left the bus")

    def _ep3(self):
        return next(e for e in self.emu.status()["endpoints"] if e["file"] == "ep3")

    def test_shared_memory_and_receiving_inside_the_emulator(self):
        self.plug()
        a = os.urandom(300000)
        b = os.urandom(4097)
        pa, pb = self.file("a.bin", a), self.file("b.bin", b)
        start = len(self.emu.capture())
        # The stand-in HAL names this process in the share handle: run where the daemon sees it.
        result = self.emu.ctl("exec", "--", USBDCTL, "send-shm", "--virtual", "--padding", 3, pa, pb, check=False)
        self.assert_status(result, 0)
        expected = a + bytes(3) + b + bytes(3)
        self.assertEqual(self.captured_after(start, len(expected)), expected)

        upload = os.urandom(200000)
        source = self.file("upload.bin", upload)
        target = os.path.join(self.dir, "received.bin")
        self.file("received.bin", b"old content that must not count")
        receiver = subprocess.Popen([EMUCTL, "--name", self.emu.name, "exec", "--", USBDCTL,
                                     "receive", "--wait", "--timeout", "20", target, str(len(upload))],
                                    stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(lambda: receiver.poll() is None and receiver.kill())
        self.emu.ctl("ep1-push", source)
        _, stderr = receiver.communicate(timeout=30)
        self.assertEqual(receiver.returncode, 0, stderr)
        with open(target, "rb") as f:
            self.assertEqual(f.read(), upload)

class WithoutDaemon(unittest.TestCase):
    """A bus without the daemon, and no bus at all."""

    def setUp(self):
        self.emu = Emulator(command=["sleep", "600"])
        self.addCleanup(self.emu.stop)
        self.emu.wait_control()
        wait_for(lambda: os.path.exists(self.emu.inside("/run/dbus/system_bus_socket")), what="the bus")
        self.env = dict(os.environ,
                        DBUS_SYSTEM_BUS_ADDRESS=f"unix:path={self.emu.inside('/run/dbus/system_bus_socket')}")

    def usbdctl(self, *args, env=None):
        return subprocess.run([USBDCTL, *map(str, args)], env=env or self.env, capture_output=True, timeout=30)

    def test_a_missing_daemon_and_a_missing_bus_are_told_apart(self):
        for args in (["status"], ["watch"], ["send-data", "x"], ["send-file", USBDCTL]):
            result = self.usbdctl(*args)
            self.assertEqual(result.returncode, 2, (args, result.stderr))
            self.assertIn(b"usbd is not running", result.stderr)
        socket_path = self.emu.inside("/tmp/usbd-socket")
        for args in (["socket-send", "--socket", socket_path, "--text", "x"], ["interrupt", "--socket", socket_path]):
            result = self.usbdctl(*args)
            self.assertEqual(result.returncode, 2, (args, result.stderr))
            self.assertIn(socket_path.encode(), result.stderr)

        no_bus = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS="unix:path=/nonexistent/bus")
        result = self.usbdctl("status", env=no_bus)
        self.assertEqual(result.returncode, 6, result.stderr)
        self.assertIn(b"cannot connect to the system bus", result.stderr)

        if not os.path.exists("/dev/ion"):
            result = self.usbdctl("send-shm", USBDCTL)
            self.assertEqual(result.returncode, 6, result.stderr)
            self.assertIn(b"/dev/ion", result.stderr)


if __name__ == "__main__":
    unittest.main()
