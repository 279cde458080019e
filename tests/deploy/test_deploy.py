"""The deployment files: the daemon started as usbd.service starts it (its own user, the unit's
umask and environment, the stale socket removed first) under the shipped bus policy on a private
system bus, with callers inside and outside the group usbd; the gadget set-up's refusal to
overwrite what it did not write; what the install target puts where; and the unit as systemd
judges it."""

import os
import re
import shlex
import shutil
import stat
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
GADGET = os.path.join(SOURCE_DIR, "deploy", "gadget", "usbd-gadget")
SYSUSERS = os.path.join(SOURCE_DIR, "deploy", "sysusers", "usbd.conf")
GUIDE = os.path.join(SOURCE_DIR, "docs", "deployment.md")
USBDCTL = os.environ.get("USBDCTL_BIN", os.path.join(BUILD_DIR, "usbdctl"))
# Files that processes inside the emulator read must lie outside /tmp, which is private there.
WORK_DIR = os.environ.get("USBD_DEPLOY_WORK_DIR", BUILD_DIR)

# Numeric ids of the daemon's user, the test's callers and the group; they exist only in the
# emulator's private copies of /etc/passwd and /etc/group, so nothing on the host changes.
DAEMON = 48210
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
# policy's names when it loads its configuration; leaves a socket file behind as a daemon that
# was killed would; then runs what the unit runs.
START = ('set -e; mount --bind "$1" /etc/group; mount --bind "$2" /etc/passwd; mkdir -p /run/dbus; '
         'dbus-daemon --config-file="$3" --fork --nopidfile; touch /tmp/usbd-socket; exec sh -c "$4"')

OWN_NAME = ("import dbus, sys\n"
            "try:\n"
            "    dbus.SystemBus().request_name('com.korvane.usbd')\n"
            "    print('owned')\n"
            "except dbus.DBusException as error:\n"
            "    print(error.get_dbus_name())\n")


def unit_settings(path):
    """The [Service] settings of a unit file, each a list of its values in order."""
    settings, section = {}, None
    with open(path) as f:
        for line in f:
            line = line.strip()
            if not line or line.startswith("#"):
                continue
            if line.startswith("["):
                section = line
            elif section == "[Service]":
                key, value = line.split("=", 1)
                settings.setdefault(key, []).append(value)
    return settings


def unit_start_script(daemon):
    """A shell script that does what systemd does to start usbd.service, but for the sandbox and
    the bind after it (the emulator has no UDC to bind): ExecStartPre with its prefixes, then
    ExecStart as the unit's user and group with its umask and environment, the daemon being
    this build's."""
    unit = unit_settings(UNIT)
    user, group = unit["User"][0], unit["Group"][0]
    lines = []
    for command in unit.get("ExecStartPre", []):
        privileged = command.startswith("+")
        command = command.lstrip("-+")
        lines.append(command if privileged else f"setpriv --reuid={user} --regid={group} --init-groups {command}")
    lines.append(f"umask {unit['UMask'][0]}")
    start = unit["ExecStart"][0].replace("/usr/sbin/usbd", daemon)
    environment = " ".join(shlex.quote(value) for value in unit.get("Environment", []))
    lines.append(f"exec setpriv --reuid={user} --regid={group} --init-groups env {environment} {start}")
    return "\n".join(lines)


class TheServiceAsItsUnitStartsIt(unittest.TestCase):

    def start(self, defaults):
        files = tempfile.TemporaryDirectory(prefix="usbd-deploy-", dir=WORK_DIR)
        self.addCleanup(files.cleanup)
        # Open to the daemon's user and the callers, who read the files to send from here.
        os.chmod(files.name, 0o755)
        self.files = files.name
        paths = {name: os.path.join(files.name, name) for name in ("group", "passwd", "bus.conf")}
        with open("/etc/group") as f:
            group = f.read()
        with open(paths["group"], "w") as f:
            f.write(group.rstrip("\n") + f"\nusbd:x:{GROUP}:usbd-member\n")
        with open("/etc/passwd") as f:
            passwd = f.read()
        with open(paths["passwd"], "w") as f:
            f.write(passwd.rstrip("\n") + "\n"
                    f"usbd:x:{DAEMON}:{GROUP}::/nonexistent:/usr/sbin/nologin\n"
                    f"usbd-outsider:x:{OUTSIDER}:{OUTSIDER}::/nonexistent:/usr/sbin/nologin\n"
                    f"usbd-member:x:{MEMBER}:{MEMBER}::/nonexistent:/usr/sbin/nologin\n")
        with open(paths["bus.conf"], "w") as f:
            f.write(BUS_CONFIG.format(defaults=defaults, policy=POLICY))
        for path in paths.values():
            os.chmod(path, 0o644)

        emu = Emulator(command=["sh", "-c", START, "sh", paths["group"], paths["passwd"], paths["bus.conf"],
                                unit_start_script(os.path.abspath(USBD))], dbus=False)
        self.addCleanup(emu.stop)
        try:
            emu.wait_control()
            emu.wait_ready()
            emu.wait_service()  # the daemon, as its user, owns its name under this policy
            # Its socket thread may bind after the name was taken; the stale file is gone by then.
            socket_path = emu.inside("/tmp/usbd-socket")
            wait_for(lambda: os.path.exists(socket_path) and stat.S_ISSOCK(os.stat(socket_path).st_mode),
                     what="the daemon's socket")
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

                for args in (["status"], ["send-data", "x"], ["receive", "/dev/null", "0"],
                             ["socket-send", "--text", "x"]):
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
                for args, sent in ((["send-data", "hello"], b"hello"), (["socket-send", "--text", "socket"], b"socket")):
                    result = self.run_as(emu, *member, USBDCTL, *args)
                    self.assertEqual(result.returncode, 0, result.stderr)
                    wait_for(lambda: emu.capture().endswith(sent), what="the member's bytes at the host")

                # The name belongs to the daemon's user: not to root, not to members.
                for caller in ((0, [0]), outsider, member):
                    result = self.run_as(emu, *caller, "/usr/bin/python3", "-c", OWN_NAME)
                    self.assertEqual(result.stdout.decode().strip(), "org.freedesktop.DBus.Error.AccessDenied",
                                     result.stderr)

    def test_the_daemon_sends_only_what_its_user_may_read(self):
        emu = self.start(STRICT_DEFAULTS)
        with open(f"/proc/{emu.pid_of('usbd')}/status") as f:
            ids = dict(line.split(":", 1) for line in f.read().splitlines())
        self.assertEqual(ids["Uid"].split()[:2], [str(DAEMON)] * 2)
        self.assertEqual(ids["Gid"].split()[:2], [str(GROUP)] * 2)
        self.assertEqual(ids["CapEff"].strip(), "0" * 16)

        # The socket file left behind was removed first, and the socket the daemon made has the
        # unit's group and mode.
        info = os.stat(emu.inside("/tmp/usbd-socket"))
        self.assertEqual((info.st_uid, info.st_gid, stat.S_IMODE(info.st_mode)), (DAEMON, GROUP, 0o770))

        emu.ctl("plug")
        wait_for(lambda: b"usb (1)" in self.run_as(emu, 0, [0], USBDCTL, "status").stdout, what="the link")
        secret = os.path.join(self.files, "secret")
        with open(secret, "wb") as f:
            f.write(b"root's own bytes")
        os.chmod(secret, 0o600)
        # Root may call the daemon and read the file, but the daemon may not read it.
        result = self.run_as(emu, 0, [0], USBDCTL, "send-file", secret)
        self.assertEqual(result.returncode, 5, result.stderr)
        self.assertIn(b"could not send", result.stderr)
        self.assertNotIn(b"root's own bytes", emu.capture())
        os.chmod(secret, 0o644)
        result = self.run_as(emu, 0, [0], USBDCTL, "send-file", secret)
        self.assertEqual(result.returncode, 0, result.stderr)
        wait_for(lambda: emu.capture().endswith(b"root's own bytes"), what="the readable file at the host")

        # A caller's own file it cannot reach, told apart from one that is not there.
        locked = os.path.join(self.files, "locked")
        os.mkdir(locked, 0o700)
        shutil.copy(secret, locked)
        for path, problem in ((os.path.join(locked, "secret"), b"permission denied"),
                              (os.path.join(self.files, "missing"), b"no such file")):
            result = self.run_as(emu, MEMBER, [GROUP], USBDCTL, "send-file", path)
            self.assertEqual(result.returncode, 4, result.stderr)
            self.assertIn(path.encode() + b": " + problem, result.stderr)


class GadgetSetUp(unittest.TestCase):

    def test_what_it_did_not_write_is_never_overwritten(self):
        # The emulator's configfs holds a gadget g1 as a device's would; the machine has no
        # FunctionFS, so each set-up stops there, after the gadget's attributes.
        emu = Emulator(command=["sleep", "600"], dbus=False)
        self.addCleanup(emu.stop)
        emu.wait_control()
        vendor = emu.inside("/sys/kernel/config/usb_gadget/g1/idVendor")

        setup = ["exec", "--", GADGET, "--max-power", "0", "--serial", "S1"]
        first = emu.ctl(*setup, "--vendor", "0x1234", "setup", check=False)
        self.assertEqual(first.returncode, 1)
        self.assertIn(b"FunctionFS is not available", first.stderr)
        with open(vendor) as f:
            self.assertEqual(f.read(), "0x1234\n")

        # Other settings than those the gadget was made with: said, and left as it is.
        second = emu.ctl(*setup, "setup", check=False)
        self.assertEqual(second.returncode, 1)
        self.assertIn(b'idVendor: the gadget has "0x1234", the settings "0x1d6b"', second.stderr)
        self.assertIn(b"left as it is", second.stderr)
        with open(vendor) as f:
            self.assertEqual(f.read(), "0x1234\n")

    def test_the_host_rule_carries_the_settings_ids(self):
        with tempfile.NamedTemporaryFile("w", suffix=".conf") as settings:
            settings.write("USBD_GADGET_ID_VENDOR=0x2345\nUSBD_GADGET_ID_PRODUCT=17\n")
            settings.flush()
            result = subprocess.run([GADGET, "--config", settings.name, "host-rule"], capture_output=True,
                                    timeout=20)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn(b'ATTR{idVendor}=="2345", ATTR{idProduct}=="0011"', result.stdout)


class InstalledFiles(unittest.TestCase):

    def test_install_places_the_files_and_they_agree_on_the_user(self):
        stage = tempfile.TemporaryDirectory(prefix="usbd-install-")
        self.addCleanup(stage.cleanup)
        root = stage.name
        result = subprocess.run(["cmake", "--install", BUILD_DIR, "--prefix", "/usr"],
                                env=dict(os.environ, DESTDIR=root), capture_output=True, timeout=120)
        self.assertEqual(result.returncode, 0, result.stderr)
        for path in ("usr/share/dbus-1/system.d/com.korvane.usbd.conf", "usr/lib/systemd/system/usbd.service",
                     "usr/lib/sysusers.d/usbd.conf", "usr/sbin/usbd", "usr/bin/usbdctl",
                     "usr/lib/systemd/system/usbd-gadget.service", "usr/sbin/usbd-gadget",
                     "usr/lib/udev/rules.d/60-usbd-ion.rules", "usr/lib/udev/rules.d/70-usbd-host.rules"):
            self.assertTrue(os.path.isfile(os.path.join(root, path)), path)

        unit = unit_settings(UNIT)
        with open(POLICY) as f:
            policy = f.read()
        self.assertEqual(unit["ExecStart"], ["/usr/sbin/usbd"])
        self.assertEqual((unit["User"], unit["Group"]), (["usbd"], ["usbd"]))
        self.assertEqual(re.findall(r'<policy user="([^"]+)">\s*<allow own=', policy), ["usbd"])
        self.assertEqual(re.findall(r'<policy group="([^"]+)">', policy), ["usbd"])

        # The user the unit runs as and the group the policy admits are the ones sysusers creates.
        if shutil.which("systemd-sysusers"):
            os.makedirs(os.path.join(root, "etc"))
            result = subprocess.run(["systemd-sysusers", f"--root={root}",
                                     os.path.join(root, "usr/lib/sysusers.d/usbd.conf")],
                                    capture_output=True, timeout=60)
            self.assertEqual(result.returncode, 0, result.stderr)
            with open(os.path.join(root, "etc/passwd")) as f:
                self.assertRegex(f.read(), r"(?m)^usbd:x:\d+:\d+:")
            with open(os.path.join(root, "etc/group")) as f:
                self.assertRegex(f.read(), r"(?m)^usbd:x:\d+:")


class UnitAsSystemdSeesIt(unittest.TestCase):

    def setUp(self):
        if not shutil.which("systemd-analyze"):
            self.skipTest("systemd-analyze is not installed")

    def test_units_pass_systemd_verification(self):
        folder = tempfile.TemporaryDirectory(prefix="usbd-unit-")
        self.addCleanup(folder.cleanup)
        with open(UNIT) as f:
            unit = f.read()
        # The daemon is not installed on this machine: verify against the built one, which
        # also lets the verifier check the executable. The daemon's unit requires the gadget's,
        # so both are verified together, each program taken from the tree.
        copy = os.path.join(folder.name, "usbd.service")
        with open(copy, "w") as f:
            f.write(unit.replace("/usr/sbin/usbd-gadget", GADGET)
                    .replace("ExecStart=/usr/sbin/usbd", f"ExecStart={os.path.abspath(USBD)}"))
        gadget_copy = os.path.join(folder.name, "usbd-gadget.service")
        with open(GADGET_UNIT) as f:
            gadget_unit = f.read()
        with open(gadget_copy, "w") as f:
            f.write(gadget_unit.replace("/usr/sbin/usbd-gadget", GADGET))
        # Documentation= names man pages: the verifier looks them up, here among this build's.
        stage = os.path.join(folder.name, "stage")
        subprocess.run(["cmake", "--install", BUILD_DIR, "--prefix", "/usr"], env=dict(os.environ, DESTDIR=stage),
                       capture_output=True, timeout=120, check=True)
        result = subprocess.run(["systemd-analyze", "verify", copy, gadget_copy], capture_output=True,
                                env=dict(os.environ, MANPATH=os.path.join(stage, "usr/share/man")), timeout=60)
        # Unknown or misspelt settings are only warned about, so any output is a failure.
        self.assertEqual((result.returncode, result.stdout + result.stderr), (0, b""))

    def test_exposure_is_the_one_the_guide_states(self):
        result = subprocess.run(["systemd-analyze", "security", "--offline=true", UNIT], capture_output=True,
                                text=True, timeout=60)
        measured = re.search(r"Overall exposure level for usbd\.service: ([\d.]+)", result.stdout)
        self.assertIsNotNone(measured, result.stdout + result.stderr)
        with open(GUIDE) as f:
            stated = re.search(r"`systemd-analyze security usbd` rates it \*\*([\d.]+)\*\*", f.read())
        self.assertIsNotNone(stated, "the guide states no exposure level")
        self.assertEqual(measured.group(1), stated.group(1),
                         "the unit's exposure changed: say so in docs/deployment.md")
        with open(os.path.join(SOURCE_DIR, "README.md")) as f:
            front = re.search(r"`systemd-analyze security usbd` rates the unit ([\d.]+)", f.read())
        self.assertEqual(front and front.group(1), measured.group(1), "and in the README")
        # The daemon keeps no capability and runs as no one else.
        self.assertRegex(result.stdout, r"✓ User=/DynamicUser=")
        self.assertRegex(result.stdout, r"✓ CapabilityBoundingSet=~CAP_SYS_ADMIN")


if __name__ == "__main__":
    unittest.main()
