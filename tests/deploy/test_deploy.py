"""The deployment files: the bus policy in force on a private system bus, with callers inside and
outside the group usbd, and what the install target puts where."""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "support"))

from usbdtest import BUILD_DIR, USBD, Emulator, wait_for  # noqa: E402

SOURCE_DIR = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
POLICY = os.path.join(SOURCE_DIR, "deploy", "dbus", "com.korvane.usbd.conf")
UNIT = os.path.join(SOURCE_DIR, "deploy", "systemd", "usbd.service")
GADGET_UNIT = os.path.join(SOURCE_DIR, "deploy", "systemd", "usbd-gadget.service")
SYSUSERS = os.path.join(SOURCE_DIR, "deploy", "sysusers", "usbd.conf")
USBDCTL = os.environ.get("USBDCTL_BIN", os.path.join(BUILD_DIR, "usbdctl"))
# Files that processes inside the emulator read must lie outside /tmp, which is private there.
WORK_DIR = os.environ.get("USBD_DEPLOY_WORK_DIR", BUILD_DIR)

# Numeric ids of the test's callers and group; they exist only in the emulator's private copies
# of /etc/passwd and /etc/group, so nothing on the host changes.
OUTSIDER = 48211
MEMBER = 48212
GROUP = 48213

# The bus's own defaults, as a system bus has them: method calls and ownership denied unless a
# service's policy opens them.
STRICT_DEFAULTS = """
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus.Introspectable"/>
"""
# A loosened local configuration that lets everything through: the policy must still keep
# outsiders away on its own.
PERMISSIVE_DEFAULTS = """
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
"""

BUS_CONFIG = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=/run/dbus/system_bus_socket</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">{defaults}</policy>
  <include>{policy}</include>
</busconfig>
"""

# Puts the private identity files in place before the bus starts, since dbus-daemon resolves the
# policy's group name when it loads its configuration.
START = ('set -e; mount --bind "$1" /etc/group; mount --bind "$2" /etc/passwd; mkdir -p /run/dbus; '
         'dbus-daemon --config-file="$3" --fork --nopidfile; exec "$4"')

OWN_NAME = ("import dbus, sys\n"
            "try:\n"
            "    dbus.SystemBus().request_name('com.korvane.usbd')\n"
            "    print('owned')\n"
            "except dbus.DBusException as error:\n"
            "    print(error.get_dbus_name())\n")


class PolicyOnAPrivateSystemBus(unittest.TestCase):

    def start(self, defaults):
        files = tempfile.TemporaryDirectory(prefix="usbd-deploy-", dir=WORK_DIR)
        self.addCleanup(files.cleanup)
        paths = {name: os.path.join(files.name, name) for name in ("group", "passwd", "bus.conf")}
        with open("/etc/group") as f:
            group = f.read()
        with open(paths["group"], "w") as f:
            f.write(group.rstrip("\n") + f"\nusbd:x:{GROUP}:usbd-member\n")
        with open("/etc/passwd") as f:
            passwd = f.read()
        with open(paths["passwd"], "w") as f:
            f.write(passwd.rstrip("\n") + "\n"
                    f"usbd-outsider:x:{OUTSIDER}:{OUTSIDER}::/nonexistent:/usr/sbin/nologin\n"
                    f"usbd-member:x:{MEMBER}:{MEMBER}::/nonexistent:/usr/sbin/nologin\n")
        with open(paths["bus.conf"], "w") as f:
            f.write(BUS_CONFIG.format(defaults=defaults, policy=POLICY))
        for path in paths.values():
            os.chmod(path, 0o644)

        emu = Emulator(command=["sh", "-c", START, "sh", paths["group"], paths["passwd"], paths["bus.conf"], USBD],
                       dbus=False)
        self.addCleanup(emu.stop)
        try:
            emu.wait_control()
            emu.wait_ready()
            emu.wait_service()  # the daemon, as root, owns its name under this policy
        except AssertionError as error:
            raise AssertionError(f"{error}\n--- emulator, bus and daemon log ---\n{emu.log()}") from None
        return emu

    def run_as(self, emu, uid, groups, *command):
        ids = [f"--reuid={uid}", f"--regid={uid}"]
        ids += [f"--groups={','.join(map(str, groups))}"] if groups else ["--clear-groups"]
        return emu.ctl("exec", "--", "setpriv", *ids, *command, check=False, timeout=40)

    def test_only_root_and_members_of_the_group_get_in(self):
        for name, defaults in (("strict bus defaults", STRICT_DEFAULTS), ("permissive bus defaults", PERMISSIVE_DEFAULTS)):
            with self.subTest(name):
                emu = self.start(defaults)
                member = (MEMBER, [GROUP])
                outsider = (OUTSIDER, [])

                for args in (["status"], ["send-data", "x"], ["receive", "/dev/null", "0"]):
                    result = self.run_as(emu, *outsider, USBDCTL, *args)
                    self.assertEqual(result.returncode, 3, (args, result.stderr))
                    self.assertIn(b"access denied", result.stderr)

                result = self.run_as(emu, *member, USBDCTL, "status")
                self.assertEqual(result.returncode, 0, result.stderr)
                self.assertIn(b"link_type: none (0)", result.stdout)
                # Reaching the daemon with the link down is its own answer, not a denial.
                result = self.run_as(emu, *member, USBDCTL, "send-data", "x")
                self.assertEqual(result.returncode, 5, result.stderr)
                emu.ctl("plug")
                wait_for(lambda: b"usb (1)" in self.run_as(emu, *member, USBDCTL, "status").stdout,
                         what="the link as the member sees it")
                result = self.run_as(emu, *member, USBDCTL, "send-data", "hello")
                self.assertEqual(result.returncode, 0, result.stderr)
                wait_for(lambda: emu.capture().endswith(b"hello"), what="the member's bytes at the host")

                # Nobody but root may take the name, members included.
                for caller in (outsider, member):
                    result = self.run_as(emu, *caller, "/usr/bin/python3", "-c", OWN_NAME)
                    self.assertEqual(result.stdout.decode().strip(), "org.freedesktop.DBus.Error.AccessDenied",
                                     result.stderr)


class InstalledFiles(unittest.TestCase):

    def test_install_places_the_files_and_they_agree_on_the_group(self):
        stage = tempfile.TemporaryDirectory(prefix="usbd-install-")
        self.addCleanup(stage.cleanup)
        root = stage.name
        result = subprocess.run(["cmake", "--install", BUILD_DIR, "--prefix", "/usr"],
                                env=dict(os.environ, DESTDIR=root), capture_output=True, timeout=120)
        self.assertEqual(result.returncode, 0, result.stderr)
        for path in ("usr/share/dbus-1/system.d/com.korvane.usbd.conf", "usr/lib/systemd/system/usbd.service",
                     "usr/lib/sysusers.d/usbd.conf", "usr/sbin/usbd", "usr/bin/usbdctl",
                     "usr/lib/systemd/system/usbd-gadget.service", "usr/sbin/usbd-gadget"):
            self.assertTrue(os.path.isfile(os.path.join(root, path)), path)

        with open(UNIT) as f:
            unit = f.read()
        with open(POLICY) as f:
            policy = f.read()
        self.assertIn("ExecStart=/usr/sbin/usbd\n", unit)
        self.assertEqual(re.findall(r"^Group=(\S+)$", unit, re.M), ["usbd"])
        self.assertEqual(re.findall(r'<policy group="([^"]+)">', policy), ["usbd"])

        # The group the unit runs with and the policy admits is the one sysusers creates.
        if shutil.which("systemd-sysusers"):
            os.makedirs(os.path.join(root, "etc"))
            result = subprocess.run(["systemd-sysusers", f"--root={root}",
                                     os.path.join(root, "usr/lib/sysusers.d/usbd.conf")],
                                    capture_output=True, timeout=60)
            self.assertEqual(result.returncode, 0, result.stderr)
            with open(os.path.join(root, "etc/group")) as f:
                self.assertRegex(f.read(), r"(?m)^usbd:x:\d+:")

    def test_unit_passes_systemd_verification(self):
        if not shutil.which("systemd-analyze"):
            self.skipTest("systemd-analyze is not installed")
        folder = tempfile.TemporaryDirectory(prefix="usbd-unit-")
        self.addCleanup(folder.cleanup)
        with open(UNIT) as f:
            unit = f.read()
        # The daemon is not installed on this machine: verify against the built one, which
        # also lets the verifier check the executable.
        # The daemon's unit requires the gadget's, so both are verified together, each program
        # taken from the tree.
        gadget_script = os.path.join(SOURCE_DIR, "deploy", "gadget", "usbd-gadget")
        copy = os.path.join(folder.name, "usbd.service")
        with open(copy, "w") as f:
            f.write(unit.replace("/usr/sbin/usbd-gadget", gadget_script)
                    .replace("ExecStart=/usr/sbin/usbd", f"ExecStart={os.path.abspath(USBD)}"))
        gadget_copy = os.path.join(folder.name, "usbd-gadget.service")
        with open(GADGET_UNIT) as f:
            gadget_unit = f.read()
        with open(gadget_copy, "w") as f:
            f.write(gadget_unit.replace("/usr/sbin/usbd-gadget", gadget_script))
        result = subprocess.run(["systemd-analyze", "verify", copy, gadget_copy], capture_output=True,
                                timeout=60)
        # Unknown or misspelt settings are only warned about, so any output is a failure.
        self.assertEqual((result.returncode, result.stdout + result.stderr), (0, b""))


if __name__ == "__main__":
    unittest.main()
