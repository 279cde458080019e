"""Start-up of the messaging stand-in: when the service name is taken or the bus cannot be
reached, the process ends at once with one line saying why, rather than queueing for the name or
running half-started. Usage: test_messaging.py OSTR_INIT_PROBE [unittest args]."""

import os
import subprocess
import sys
import unittest

import dbus

PROBE = sys.argv.pop(1)
NAME = "com.korvane.usbdtest"
NOWHERE = "unix:path=/nonexistent/usbd-test-bus"


def probe(bus, **env):
    return subprocess.run([PROBE, "usbdtest", bus], env=dict(os.environ, **env),
                          capture_output=True, text=True, timeout=20)


class StartUpFailures(unittest.TestCase):

    def test_taken_name_and_unreachable_buses_end_the_process_with_one_line(self):
        # A bus of the test's own, so that the machine's buses are never touched.
        bus = subprocess.Popen(["dbus-daemon", "--session", "--nofork", "--print-address"],
                               stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.addCleanup(bus.wait)
        self.addCleanup(bus.terminate)
        address = bus.stdout.readline().strip()
        owner = dbus.bus.BusConnection(address)
        self.addCleanup(owner.close)
        self.assertEqual(owner.request_name(NAME, dbus.bus.NAME_FLAG_DO_NOT_QUEUE),
                         dbus.bus.REQUEST_NAME_REPLY_PRIMARY_OWNER)

        taken = probe("session", DBUS_SESSION_BUS_ADDRESS=address)
        self.assertEqual((taken.returncode, taken.stdout, taken.stderr),
                         (1, "", f"usbdtest: the name {NAME} is already owned on the session bus\n"))

        for which, variable in (("session", "DBUS_SESSION_BUS_ADDRESS"), ("system", "DBUS_SYSTEM_BUS_ADDRESS")):
            unreachable = probe(which, **{variable: NOWHERE})
            self.assertEqual((unreachable.returncode, unreachable.stdout), (1, ""), which)
            self.assertRegex(unreachable.stderr,
                             f"^usbdtest: cannot connect to the {which} bus to register {NAME}: [^\n]+\n$")


if __name__ == "__main__":
    unittest.main()
