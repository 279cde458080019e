"""Helpers for system tests: the real usbd on the device emulator, reached from the test process.

The emulator runs the daemon inside a private mount and pid namespace. The test stays outside and
reaches the inside through /proc/<pid>/root of a process in the namespace: the private system bus,
the request socket and the files the emulator writes are all there.
"""

import json
import os
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

BUILD_DIR = os.environ.get("USBD_BUILD_DIR", os.path.join(os.path.dirname(__file__), "..", "..", "build"))
USBD = os.environ.get("USBD_BIN", os.path.join(BUILD_DIR, "usbd"))
EMU = os.environ.get("USBD_EMU_BIN", os.path.join(BUILD_DIR, "usbd-emu"))
EMUCTL = os.environ.get("USBD_EMUCTL_BIN", os.path.join(BUILD_DIR, "usbd-emuctl"))
HAL_LIB = os.environ.get("USBD_HAL_LIB", os.path.join(BUILD_DIR, "platform", "hal", "libarvohal.so"))
SHM_HOLDER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "shm_holder.py")

SERVICE = "com.korvane.usbd"
OBJECT_PATH = "/com/korvane/usbd"
INTERFACE = "com.korvane.usbd"


def wait_for(predicate, timeout=10.0, interval=0.02, what="condition"):
    deadline = time.monotonic() + timeout
    while True:
        value = predicate()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"timed out after {timeout}s waiting for {what}")
        time.sleep(interval)


def _sanitizer_preload():
    """What the shared-memory holder needs before python3 when the HAL library is built with
    AddressSanitizer: its runtime must be loaded first, and python's own allocations at exit are
    none of the test's business."""
    ldd = subprocess.run(["ldd", HAL_LIB], capture_output=True, text=True).stdout
    for line in ldd.splitlines():
        parts = line.split()
        if parts and parts[0].startswith("libasan.so") and len(parts) >= 3:
            return ["env", f"LD_PRELOAD={parts[2]}", "ASAN_OPTIONS=detect_leaks=0"]
    return []


class Emulator:
    """One emulator running `command` (by default the daemon) under a unique name."""

    _count = 0

    def __init__(self, command=None, dbus=True, env=None, extra_args=(), log_debug=True, journal=False):
        Emulator._count += 1
        self.name = f"t{os.getpid()}-{Emulator._count}"
        self.tmp = tempfile.TemporaryDirectory(prefix="usbd-test-")
        self.log_path = os.path.join(self.tmp.name, "emu.log")
        self.capture_path = os.path.join(self.tmp.name, "capture.bin")
        args = [EMU, "--name", self.name, "--capture", self.capture_path]
        if dbus:
            args.append("--dbus")
        args += list(extra_args)
        args += ["--"] + (command or [USBD])
        run_env = dict(os.environ)
        if log_debug:
            run_env["QT_LOGGING_RULES"] = "usbd.debug=true;usbconn.debug=true;usbdsocket.debug=true;default.debug=true"
        run_env.update(env or {})
        self._log = open(self.log_path, "wb")
        if journal:
            # As systemd tells a service whose stderr is a journal stream: that stream's dev:ino.
            st = os.fstat(self._log.fileno())
            run_env["JOURNAL_STREAM"] = f"{st.st_dev}:{st.st_ino}"
        self.process = subprocess.Popen(args, stdout=self._log, stderr=subprocess.STDOUT,
                                        stdin=subprocess.DEVNULL, env=run_env)
        self._bus = None
        self._init_pid = None
        self._holders = []

    # --- control -------------------------------------------------------------------------
    def ctl(self, *args, check=True, input=None, timeout=20):
        result = subprocess.run([EMUCTL, "--name", self.name, *map(str, args)], input=input,
                                capture_output=True, timeout=timeout)
        if check and result.returncode != 0:
            raise AssertionError(f"usbd-emuctl {' '.join(map(str, args))} failed "
                                 f"({result.returncode}): {result.stderr.decode(errors='replace')}")
        return result

    def status(self):
        return json.loads(self.ctl("status", "--json").stdout)

    def wait_ready(self, timeout=15):
        self.ctl("wait-ready", "--timeout", timeout, timeout=timeout + 5)

    def wait_control(self, timeout=10):
        """Waits until the emulator answers on its control socket."""
        def up():
            if self.process.poll() is not None:
                raise AssertionError(f"emulator ended early ({self.process.returncode}):\n{self.log()}")
            return self.ctl("status", "--json", check=False).returncode == 0
        wait_for(up, timeout, what="emulator control socket")

    def root(self):
        """A path to the namespace's root directory, through the namespace's init process."""
        if self._init_pid is None:
            self._init_pid = self.status()["init_pid"]
        return f"/proc/{self._init_pid}/root"

    def pid_of(self, name):
        """The host pid of the emulator's process whose command name is `name` (e.g. "usbd")."""
        def parent_and_name(pid):
            with open(f"/proc/{pid}/stat") as f:
                stat = f.read()
            return int(stat[stat.rindex(")") + 2:].split()[1]), stat[stat.index("(") + 1:stat.rindex(")")]
        for pid in filter(str.isdigit, os.listdir("/proc")):
            try:
                parent, comm = parent_and_name(pid)
                if comm != name:
                    continue
                while parent > 1:
                    if parent == self.process.pid:
                        return int(pid)
                    parent = parent_and_name(parent)[0]
            except (OSError, ValueError, IndexError):
                continue
        raise AssertionError(f"no {name} under the emulator")

    def endpoint(self, file):
        return next(ep for ep in self.status()["endpoints"] if ep["file"] == file)

    def inside(self, path):
        return self.root() + path

    # --- daemon --------------------------------------------------------------------------
    def log(self):
        self._log.flush()
        with open(self.log_path, "rb") as f:
            return f.read().decode(errors="replace")

    def wait_log(self, text, timeout=10):
        wait_for(lambda: text in self.log(), timeout, what=f"log line {text!r}")

    def capture(self):
        with open(self.capture_path, "rb") as f:
            return f.read()

    def bus(self):
        if self._bus is None:
            import dbus
            address = f"unix:path={self.inside('/run/dbus/system_bus_socket')}"
            self._bus = dbus.bus.BusConnection(address)
        return self._bus

    def wait_service(self, timeout=15):
        wait_for(lambda: self._has_owner(), timeout, what="com.korvane.usbd on the bus")

    def _has_owner(self):
        if self.process.poll() is not None:
            raise AssertionError(f"emulator ended early ({self.process.returncode}):\n{self.log()}")
        try:
            return bool(self.bus().name_has_owner(SERVICE))
        except Exception:
            self._bus = None
            return False

    def usbd(self):
        """The daemon's object, as a python-dbus proxy."""
        import dbus
        return dbus.Interface(self.bus().get_object(SERVICE, OBJECT_PATH), INTERFACE)

    def socket_path(self):
        return self.inside("/tmp/usbd-socket")

    def connect_socket(self, timeout=10):
        def attempt():
            s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            try:
                s.connect(self.socket_path())
                return s
            except OSError:
                s.close()
                return None
        return wait_for(attempt, timeout, what="the request socket")

    def hold_shm(self, size, seed="shm"):
        """Shared memory of `size` bytes held by a process inside the namespace.

        Returns (share handle, physical address, the bytes, a function that frees it)."""
        holder = subprocess.Popen([EMUCTL, "--name", self.name, "exec", "--", *_sanitizer_preload(),
                                   "/usr/bin/python3", SHM_HOLDER, HAL_LIB, str(size), seed],
                                  stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        line = holder.stdout.readline().split()
        if len(line) != 2:
            holder.kill()
            raise AssertionError(f"shm holder failed: {holder.wait()}")
        sys.path.insert(0, os.path.dirname(SHM_HOLDER))
        from shm_holder import pattern

        def free():
            if holder.poll() is None:
                holder.stdin.close()
                holder.wait(timeout=10)
        self._holders.append(free)
        return int(line[0]), int(line[1]), pattern(size, seed), free

    # --- teardown ------------------------------------------------------------------------
    def stop(self):
        for free in self._holders:
            free()
        if self._bus is not None:
            try:
                self._bus.close()
            except Exception:
                pass
            self._bus = None
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            try:
                self.process.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        self._log.close()
        self.tmp.cleanup()


class DaemonTestCase(unittest.TestCase):
    """Runs each test against a fresh daemon on a fresh emulator, with the service up."""

    emulator_env = None

    def setUp(self):
        self.emu = Emulator(env=self.emulator_env)
        self.addCleanup(self._stop)
        self.emu.wait_control()
        self.emu.wait_ready()
        self.emu.wait_service()

    def _stop(self):
        if self._outcome_failed():
            print(f"\n--- emulator and daemon log ({self.id()}) ---\n{self.emu.log()}")
        self.emu.stop()

    def _outcome_failed(self):
        outcome = getattr(self, "_outcome", None)
        if outcome is None:
            return False
        errors = getattr(outcome, "errors", None) or []
        result = getattr(outcome, "result", None)
        if result is not None:
            return any(test is self for test, _ in result.failures + result.errors)
        return any(exc for _, exc in errors)
