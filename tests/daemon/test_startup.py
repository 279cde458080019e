"""Start-up of the real daemon binary: command line, the function on the emulator, failures."""

import os
import re
import subprocess
import sys
import textwrap
import unittest

import dbus

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "support"))

from usbdtest import EMUCTL, INTERFACE, USBD, Emulator, wait_for  # noqa: E402


class CommandLine(unittest.TestCase):

    def run_usbd(self, *args):
        return subprocess.run([USBD, *args], capture_output=True, text=True, timeout=20,
                              stdin=subprocess.DEVNULL)

    def test_help_version_and_unknown_options(self):
        result = self.run_usbd("--help")
        self.assertEqual(result.returncode, 0)
        self.assertIn("Handles USB device communication", result.stdout)
        self.assertIn("-s, --session", result.stdout)
        self.assertIn("Use session bus", result.stdout)

        for option in ("--version", "-v"):
            result = self.run_usbd(option)
            self.assertEqual(result.returncode, 0)
            self.assertEqual(result.stdout.strip(), "usbd 1.0")

        result = self.run_usbd("--no-such-option")
        self.assertNotEqual(result.returncode, 0)
        self.assertIn("Unknown option 'no-such-option'", result.stderr)

    def test_unknown_option_opens_nothing(self):
        emu = Emulator(command=[USBD, "--bogus"])
        self.addCleanup(emu.stop)
        self.assertNotEqual(emu.process.wait(timeout=20), 0)
        self.assertIn("Unknown option 'bogus'", emu.log())
        self.assertNotIn("function ready", emu.log())


class Startup(unittest.TestCase):

    def test_function_comes_up_on_the_emulator(self):
        emu = Emulator()
        self.addCleanup(emu.stop)
        emu.wait_control()
        emu.wait_ready()
        status = emu.status()
        self.assertTrue(status["ready"])
        self.assertEqual(len(status["interfaces"]), 1)
        self.assertEqual(status["interfaces"][0]["class"], 0xFF)
        self.assertEqual(status["interfaces"][0]["string"], "CTRL Interface")
        self.assertEqual([ep["address"] for ep in status["endpoints"]], [0x01, 0x02, 0x81, 0x82])
        self.assertTrue(all(ep["type"] == "bulk" for ep in status["endpoints"]))
        self.assertEqual([ep["max_packet"] for ep in status["endpoints"]], [[64, 512, 1024]] * 4)
        self.assertEqual(status["languages"], [{"id": 0x0409, "strings": ["CTRL Interface"]}])
        self.assertIn("function ready", emu.log())
        emu.wait_service()
        self.assertIsNone(emu.process.poll())

    def test_failed_hal_initialisation_ends_the_process(self):
        emu = Emulator(env={"ARVO_HAL_FAIL_INIT": "-1005"})
        self.addCleanup(emu.stop)
        self.assertNotEqual(emu.process.wait(timeout=20), 0)
        self.assertIn("arvo_hal_initialize: -1005", emu.log())

    def test_default_logging_and_journal_priorities(self):
        # Under Qt's default rules (none from the environment) the module categories show
        # warnings and above, while Qt's default category shows its debug lines too. With
        # stderr going to the journal every line starts with its syslog priority, and the only
        # warnings are the daemon's documented ones, also on its fault paths.
        journal = Emulator(log_debug=False, env={"QT_LOGGING_RULES": ""}, journal=True)
        self.addCleanup(journal.stop)
        journal.wait_control()
        journal.wait_ready()
        journal.wait_service()
        usbd = journal.usbd()
        journal.ctl("plug", "--speed", "high-speed")
        wait_for(lambda: int(usbd.Get(INTERFACE, "link_type",
                                      dbus_interface="org.freedesktop.DBus.Properties")) == 1,
                 what="link type 1")
        usbd.send_data(dbus.ByteArray(b"abc"), dbus.Byte(3), timeout=20)
        journal.wait_log("transfer time:")
        log = journal.log()
        self.assertRegex(log, r"(?m)^<4>usb_link state: 1$")
        self.assertRegex(log, r"(?m)^<7>usbd: connection changed: usb 1, ios 0$")
        self.assertRegex(log, r"(?m)^<7>max_buffers: 1, virt_buffers: 1 \(3b\), phys_buffers: 0 \(0b\)$")
        # ("usbd: connection changed" is a line of the default category that names the daemon.)
        self.assertNotRegex(log, r"(?m)^<7>(usbd|usbconn|usbdbuffer|usbdbufferlist|usbdsocket|iosconn): "
                                 r"(?!connection changed)")

        # Fault paths: a path that is not a file, a write ended by a cable pull, a receive whose
        # host ends the data early.
        journal.ctl("exec", "--", "mkfifo", "/tmp/fifo")
        with self.assertRaises(dbus.DBusException):
            usbd.send_file(dbus.Array([dbus.Dictionary({
                "path": "/tmp/fifo", "offset": dbus.Int64(0), "size": dbus.Int32(1),
                "element_alignment": dbus.Int32(0), "element_padding": dbus.Int32(0),
                "session_id": dbus.UInt16(0)}, signature="sv")], signature="a{sv}"), timeout=20)
        journal.ctl("stall")
        held = subprocess.Popen([EMUCTL, "--name", journal.name, "exec", "--", "gdbus", "call",
                                 "--system", "-d", "com.korvane.usbd", "-o", "/com/korvane/usbd",
                                 "-m", "com.korvane.usbd.send_data", "[byte 0x68, 0x69]", "byte 2"],
                                stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        wait_for(lambda: any(ep["file"] == "ep3" and ep["waiting"]
                             for ep in journal.status()["endpoints"]), what="the held write")
        journal.ctl("unplug")
        self.assertIn(b"Failed to send buffer", held.communicate(timeout=20)[1])
        journal.ctl("release")
        journal.ctl("plug", "--speed", "high-speed")
        usbd.open_file("/tmp/short.bin", 10, 0)
        journal.ctl("ep1-push", "-", input=b"12345")
        journal.ctl("ep1-eof")
        wait_for(lambda: os.path.exists(journal.inside("/tmp/short.bin")) and
                 os.path.getsize(journal.inside("/tmp/short.bin")) == 5, what="the short file")

        documented = [r"usb_link state: [01]", r"transfer time: \d+ms", r"failed to map buffer",
                      r"usbconn: (writev|ioctl)\(\) failed: \d+"]
        for line in journal.log().splitlines():
            if line.startswith(("<0>", "<1>", "<2>", "<3>")):
                self.fail(f"unexpected error line: {line}")
            if line.startswith("<4>"):
                self.assertTrue(any(re.fullmatch(text, line[3:]) for text in documented), line)

        # A JOURNAL_STREAM that names another file (inherited from a parent) changes nothing.
        inherited = Emulator(log_debug=False, env={"QT_LOGGING_RULES": "", "JOURNAL_STREAM": "0:0"})
        self.addCleanup(inherited.stop)
        inherited.wait_control()
        inherited.wait_ready()
        inherited.ctl("plug", "--speed", "high-speed")
        inherited.wait_log("usbd: connection changed: usb 1, ios 0")
        self.assertRegex(inherited.log(), r"(?m)^usb_link state: 1$")

    def test_runs_without_functionfs(self):
        # A private mount namespace with its own /tmp and session bus, and no FunctionFS at all.
        # A checkout under /tmp would vanish under the new /tmp: its top directory there is
        # opened first and bound back over the empty one through the descriptor (the path
        # itself then names the new /tmp, which is also why mount must not resolve the link).
        script = textwrap.dedent(f"""
            set -e
            tree=$(realpath {USBD} | awk -F/ '$2 == "tmp" && NF > 3 {{ print "/tmp/" $3 }}')
            [ -z "$tree" ] || exec 7<"$tree"
            mount -t tmpfs tmpfs /tmp
            [ -z "$tree" ] || {{ mkdir -p "$tree" && mount -c --bind /proc/self/fd/7 "$tree"; }}
            dbus-daemon --session --fork --print-address=3 --print-pid=4 3>/tmp/addr 4>/tmp/pid
            export DBUS_SESSION_BUS_ADDRESS=$(cat /tmp/addr)
            trap 'kill $(cat /tmp/pid) 2>/dev/null; kill $usbd 2>/dev/null' EXIT
            QT_LOGGING_RULES=usbd.debug=true {USBD} -s 2>/tmp/log & usbd=$!
            for i in $(seq 100); do
              gdbus call --session -d com.korvane.usbd -o /com/korvane/usbd \\
                -m org.freedesktop.DBus.Properties.Get com.korvane.usbd link_type 2>/dev/null && break
              sleep 0.1
            done
            kill -0 $usbd
            cat /tmp/log
        """)
        result = subprocess.run(["unshare", "-m", "--propagation", "private", "bash", "-c", script],
                                capture_output=True, text=True, timeout=60)
        self.assertEqual(result.returncode, 0, result.stderr + result.stdout)
        self.assertIn("(<0>,)", result.stdout)
        self.assertIn("failed to open ep0", result.stdout)
        self.assertIn("writing descriptors failed", result.stdout)


if __name__ == "__main__":
    unittest.main(verbosity=2)
