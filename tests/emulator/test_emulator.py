#!/usr/bin/python3
"""What usbd-emu leaves behind: however it ends, no process of its namespace outlives it, no
mount or file of it stays on the host, and a program or working directory in the host's /tmp
stays reachable inside; and a bus configuration of one's own keeps its relative includes. Needs
root and /dev/fuse.

Usage: test_emulator.py USBD_EMU USBD_EMUCTL EMULATOR_SYSTEM_TEST [unittest args]. The last one,
run with --hold, keeps the function up inside until it reads an exit status.
"""

import json
import os
import subprocess
import sys
import tempfile
import time
import unittest

EMU, EMUCTL, HOLDER = (os.path.abspath(arg) for arg in sys.argv[1:4])
del sys.argv[1:4]


def namespace_members(pidns):
    def namespace(pid):
        try:
            return os.readlink("/proc/%s/ns/pid" % pid)
        except OSError:
            return None
    return [int(pid) for pid in os.listdir("/proc") if pid.isdigit() and namespace(pid) == pidns]


def mounts():
    with open("/proc/self/mountinfo") as f:
        return sorted(line.split(" ", 4)[4] for line in f)


class Emulator(unittest.TestCase):

    def ctl(self, name, *args):
        return subprocess.run([EMUCTL, "--name", name, *args], capture_output=True, timeout=30)

    def wait_for(self, predicate, what):
        deadline = time.time() + 5
        while time.time() < deadline and not predicate():
            time.sleep(0.05)
        self.assertTrue(predicate(), what)

    def test_a_command_in_the_hosts_tmp_runs_from_there(self):
        # A checkout built under /tmp must run as anywhere else.
        with tempfile.TemporaryDirectory(dir="/tmp") as tmp:
            script = os.path.join(tmp, "run.sh")
            with open(script, "w") as f:
                f.write('#!/bin/sh\ncat "$PWD/data"\n')
            os.chmod(script, 0o755)
            with open(os.path.join(tmp, "data"), "w") as f:
                f.write("seen")
            r = subprocess.run([EMU, "--name", "tmp%d" % os.getpid(), "--", script], cwd=tmp,
                               capture_output=True, timeout=10)
            self.assertEqual((r.returncode, r.stdout), (0, b"seen"), r.stderr)

    def test_a_bus_configuration_keeps_its_relative_includes(self):
        # The policy lives beside the configuration, as a device's system.d does; the emulator
        # runs the bus from a copy elsewhere. Outside /tmp, which is private inside.
        work = os.environ.get("USBD_EMULATOR_WORK_DIR", os.getcwd())
        with tempfile.TemporaryDirectory(dir=work) as tmp:
            os.mkdir(os.path.join(tmp, "policy.d"))
            with open(os.path.join(tmp, "policy.d", "included.conf"), "w") as f:
                f.write('<busconfig><policy context="default"><allow own="com.example.Included"/>'
                        '</policy></busconfig>\n')
            with open(os.path.join(tmp, "bus.conf"), "w") as f:
                f.write('<busconfig><type>system</type>'
                        '<listen>unix:path=/run/dbus/system_bus_socket</listen><auth>EXTERNAL</auth>'
                        '<policy context="default"><allow user="*"/><deny own="*"/><allow receive_type="*"/>'
                        '<allow send_type="*"/></policy>'
                        '<include>policy.d/included.conf</include></busconfig>\n')
            own = ("import dbus\n"
                   "for name in ('com.example.Included', 'com.example.Other'):\n"
                   "    try:\n"
                   "        dbus.SystemBus().request_name(name)\n"
                   "        print(name, 'owned')\n"
                   "    except dbus.DBusException as error:\n"
                   "        print(name, error.get_dbus_name())\n")
            r = subprocess.run([EMU, "--name", "include%d" % os.getpid(), "--dbus-config",
                                os.path.join(tmp, "bus.conf"), "--", "/usr/bin/python3", "-c", own],
                               capture_output=True, timeout=30)
            self.assertEqual(r.returncode, 0, r.stderr)
            self.assertEqual(r.stdout.decode().split("\n")[:2],
                             ["com.example.Included owned",
                              "com.example.Other org.freedesktop.DBus.Error.AccessDenied"], r.stderr)

    def test_nothing_is_left_behind_however_the_emulator_ends(self):
        mounts_before = mounts()
        marker = "usbd-emu-marker-%d" % os.getpid()
        for how in ("exit", "sigterm", "sigkill"):
            name = "cleanup%d-%s" % (os.getpid(), how)
            emu = subprocess.Popen([EMU, "--name", name, "--", HOLDER, "--hold"],
                                   stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
            self.addCleanup(lambda emu=emu: emu.poll() is None and (emu.kill(), emu.wait()))
            self.assertEqual(emu.stdout.readline(), b"ready\n", how)
            self.assertEqual(self.ctl(name, "plug").returncode, 0)
            init_pid = json.loads(self.ctl(name, "status", "--json").stdout)["init_pid"]
            with open("/proc/%d/root/tmp/%s" % (init_pid, marker), "w") as f:
                f.write("x")
            # A process that outlives the command, and one blocked in a FunctionFS read.
            self.ctl(name, "exec", "--", "sh", "-c",
                     "sleep 300 >/dev/null 2>&1 & cat /dev/usb-ffs/bulk/ep1 >/dev/null 2>&1 &")
            self.wait_for(lambda: json.loads(self.ctl(name, "status", "--json").stdout)["endpoints"][0]["waiting"],
                          "a read waiting on ep1")
            pidns = os.readlink("/proc/%d/ns/pid" % init_pid)
            if how == "exit":
                emu.stdin.write(b"3\n")
                emu.stdin.flush()
                self.assertEqual(emu.wait(10), 3)
            elif how == "sigterm":
                emu.terminate()
                # The command gets the SIGTERM and dies of it; its status comes back.
                self.assertEqual(emu.wait(10), 128 + 15)
            else:
                emu.kill()
                emu.wait(10)
            self.wait_for(lambda: not namespace_members(pidns), how)
            self.assertFalse(os.path.exists("/tmp/" + marker))
            self.assertEqual(self.ctl(name, "status").returncode, 3, how)
            emu.stdin.close()
            emu.stdout.close()
        self.assertEqual(mounts(), mounts_before)


if __name__ == "__main__":
    unittest.main()
