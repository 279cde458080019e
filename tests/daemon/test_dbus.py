"""The daemon end to end over D-Bus and USB, on the device emulator, with a real D-Bus client."""

import os
import sys
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "support"))

import dbus  # noqa: E402
import dbus.mainloop.glib  # noqa: E402
from gi.repository import GLib  # noqa: E402

from usbdtest import OBJECT_PATH, DaemonTestCase, wait_for  # noqa: E402

dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)

FAILED = "org.freedesktop.DBus.Error.Failed"


def pump(predicate, timeout=10.0, what="condition"):
    """Runs the GLib main loop until predicate() is true."""
    context = GLib.MainContext.default()
    deadline = time.monotonic() + timeout
    while not predicate():
        if time.monotonic() > deadline:
            raise AssertionError(f"timed out waiting for {what}")
        context.iteration(False)
        time.sleep(0.005)


class Call:
    """An asynchronous method call whose outcome the test waits for."""

    def __init__(self, method, *args, timeout=30):
        self.done = False
        self.error = None
        method(*args, reply_handler=self._reply, error_handler=self._error, timeout=timeout)

    def _reply(self, *_):
        self.done = True

    def _error(self, error):
        self.error = error
        self.done = True

    def wait(self, timeout=30):
        pump(lambda: self.done, timeout, "the method's reply")
        return self

    @property
    def error_name(self):
        return self.error.get_dbus_name() if self.error else None


def file_map(path, offset=0, size=0, alignment=0, padding=0, session=0, drop=()):
    entry = {
        "path": dbus.String(path),
        "offset": dbus.Int64(offset),
        "size": dbus.Int32(size),
        "element_alignment": dbus.Int32(alignment),
        "element_padding": dbus.Int32(padding),
        "session_id": dbus.UInt16(session) if session < 65536 else dbus.UInt32(session),
    }
    for key in drop:
        del entry[key]
    return dbus.Dictionary(entry, signature="sv")


def shm_map(handle, size, padding=0, physical=True, session=0):
    return dbus.Dictionary({
        "handle": dbus.UInt64(handle),
        "size": dbus.Int64(size),
        "element_alignment": dbus.Int32(0),
        "element_padding": dbus.Int32(padding),
        "use_physical_address": dbus.Boolean(physical),
        "session_id": dbus.UInt16(session),
    }, signature="sv")


def file_list(*maps):
    return dbus.Array(maps, signature="a{sv}")


class UsbdOverDBus(DaemonTestCase):

    def setUp(self):
        super().setUp()
        self.changes = []
        self.emu.bus().add_signal_receiver(self._changed, "PropertiesChanged",
                                           "org.freedesktop.DBus.Properties", path=OBJECT_PATH)
        self.usbd = self.emu.usbd()

    def _changed(self, interface, changed, invalidated):
        self.assertEqual(interface, "com.korvane.usbd")
        for name, value in changed.items():
            self.changes.append((str(name), int(value)))

    def expect_change(self, name, value, timeout=10):
        pump(lambda: (name, value) in self.changes, timeout, f"{name} -> {value} (seen {self.changes})")
        self.changes.remove((name, value))

    def prop(self, name):
        props = dbus.Interface(self.emu.bus().get_object("com.korvane.usbd", OBJECT_PATH),
                               "org.freedesktop.DBus.Properties")
        return props.Get("com.korvane.usbd", name)

    def write_inside(self, path, data):
        with open(self.emu.inside(path), "wb") as f:
            f.write(data)

    def plug(self, *args):
        self.emu.ctl("plug", *args)
        self.expect_change("link_type", 1)

    # --- the link --------------------------------------------------------------------------

    def test_link_type_follows_usb_and_ios(self):
        self.assertEqual(self.prop("link_type"), 0)
        self.plug()
        self.emu.ctl("ios", "mfi")          # MFi wins over the USB function link
        self.expect_change("link_type", 2)
        self.emu.ctl("ios", "none")
        self.expect_change("link_type", 1)
        self.emu.ctl("unplug")
        self.expect_change("link_type", 0)
        self.emu.ctl("ios", "wifi")
        self.expect_change("link_type", 3)
        self.emu.ctl("plug")                # USB wins over Wi-Fi
        self.expect_change("link_type", 1)
        self.emu.ctl("unplug")
        self.expect_change("link_type", 3)
        self.emu.ctl("ios", "none")
        self.expect_change("link_type", 0)
        self.assertEqual(self.prop("link_type"), 0)

    def test_charge_current_and_super_speed_follow_the_cable(self):
        self.assertEqual((self.prop("charge_current_max"), self.prop("usb_super_speed")), (0, False))
        self.plug("--speed", "super-speed-plus", "--maxpower", "500")
        self.expect_change("charge_current_max", 500)
        self.expect_change("usb_super_speed", 1)
        self.assertEqual(self.prop("charge_current_max"), 500)
        self.assertTrue(self.prop("usb_super_speed"))

        self.emu.ctl("unplug")  # link down: the limit goes back to 0 and super speed ends
        self.expect_change("charge_current_max", 0)
        self.expect_change("usb_super_speed", 0)

        self.plug("--speed", "high-speed", "--maxpower", "100")
        self.expect_change("charge_current_max", 100)
        time.sleep(0.3)
        self.assertFalse(self.prop("usb_super_speed"))

    # --- sending ---------------------------------------------------------------------------

    def test_sends_fail_without_a_link(self):
        self.write_inside("/tmp/a.bin", b"abc")
        calls = [Call(self.usbd.send_data, dbus.ByteArray(b"xyz"), dbus.Byte(3)),
                 Call(self.usbd.send_file, file_list(file_map("/tmp/a.bin", size=3)))]
        for call in calls:
            self.assertEqual(call.wait().error_name, FAILED)
            self.assertEqual(call.error.get_dbus_message(), "Failed to send buffer")
        self.assertEqual(self.emu.capture(), b"")

    def test_send_file_maps_arrive_in_order(self):
        contents = [os.urandom(70000), os.urandom(3000), os.urandom(1 << 20)]
        for i, data in enumerate(contents):
            self.write_inside(f"/tmp/f{i}.bin", data)
        self.plug()
        maps = file_list(file_map("/tmp/f0.bin", offset=0, size=70000, padding=16),
                         file_map("/tmp/f1.bin", offset=1000, size=2000),
                         file_map("/tmp/f2.bin", offset=(1 << 32) + 5, size=4096, session=70000))
        self.assertIsNone(Call(self.usbd.send_file, maps).wait().error)
        expected = contents[0] + bytes(16) + contents[1][1000:3000] + contents[2][5:5 + 4096]
        wait_for(lambda: len(self.emu.capture()) >= len(expected), what="the capture")
        self.assertEqual(self.emu.capture(), expected)
        self.emu.wait_log("transfer time:")

    def test_invalid_map_fails_at_once_and_sends_nothing(self):
        self.write_inside("/tmp/a.bin", b"a" * 100)
        self.plug()
        self.emu.ctl("stall")  # a request that reached the queue would now hang, not answer
        maps = file_list(file_map("/tmp/a.bin", size=100),
                         file_map("/tmp/a.bin", size=100, drop=("session_id",)),
                         file_map("/tmp/a.bin", size=100))
        call = Call(self.usbd.send_file, maps).wait(timeout=5)
        self.assertEqual(call.error_name, FAILED)
        wrong_type = file_map("/tmp/a.bin", size=100)
        wrong_type["path"] = dbus.Int32(7)
        self.assertEqual(Call(self.usbd.send_file, file_list(wrong_type)).wait(5).error_name, FAILED)
        self.emu.ctl("release")
        self.assertEqual(self.emu.capture(), b"")

    def test_bad_ranges_fail_without_reading_outside(self):
        self.write_inside("/tmp/small.bin", b"0123456789")
        self.plug()
        for entry in (file_map("/tmp/small.bin", offset=8, size=5),     # runs past the end
                      file_map("/tmp/missing.bin", size=1),             # no such file
                      file_map("/tmp/small.bin", size=-1)):             # wraps to 4 GiB
            self.assertEqual(Call(self.usbd.send_file, file_list(entry)).wait().error_name, FAILED)
        # send_data's length may not exceed the bytes it came with.
        call = Call(self.usbd.send_data, dbus.ByteArray(b"abc"), dbus.Byte(200)).wait()
        self.assertEqual(call.error_name, FAILED)
        self.assertEqual(self.emu.capture(), b"")
        # The daemon is unharmed and the next request goes out.
        self.assertIsNone(Call(self.usbd.send_data, dbus.ByteArray(b"abc"), dbus.Byte(2)).wait().error)
        wait_for(lambda: self.emu.capture() == b"ab", what="the capture")

    def test_send_data_and_empty_requests(self):
        self.plug()
        self.assertIsNone(Call(self.usbd.send_data, dbus.ByteArray(b""), dbus.Byte(0)).wait().error)
        self.assertIsNone(Call(self.usbd.send_file, file_list()).wait().error)
        self.assertIsNone(Call(self.usbd.send_shm_data, dbus.Array([], signature="a{sv}")).wait().error)
        payload = bytes(range(255))
        self.assertIsNone(Call(self.usbd.send_data, dbus.ByteArray(payload), dbus.Byte(255)).wait().error)
        wait_for(lambda: self.emu.capture() == payload, what="the capture")

    def test_queued_request_is_dropped_unanswered_when_the_cable_goes(self):
        # The worker is held in the open() of a FIFO without a writer, so the next request stays
        # in the queue for certain while the cable goes.
        os.mkfifo(self.emu.inside("/tmp/held"))
        self.plug()
        held = Call(self.usbd.send_file, file_list(file_map("/tmp/held", size=1)))
        # Waited for, not slept on: a slow daemon (under a sanitizer) that had not reached the
        # open() before the cable went would drop the request and leave the FIFO without reader.
        usbd = self.emu.pid_of("usbd")

        def worker_held():
            for task in os.listdir(f"/proc/{usbd}/task"):
                with open(f"/proc/{usbd}/task/{task}/wchan") as f:
                    if f.read() == "wait_for_partner":
                        return True
            return False
        wait_for(worker_held, what="the worker to wait in the FIFO's open()")
        queued = Call(self.usbd.send_data, dbus.ByteArray(b"late"), dbus.Byte(4), timeout=4)
        time.sleep(0.2)
        self.emu.ctl("unplug")
        self.expect_change("link_type", 0)
        os.close(os.open(self.emu.inside("/tmp/held"), os.O_WRONLY))  # lets the worker go on
        self.assertEqual(held.wait().error_name, FAILED)
        self.assertEqual(queued.wait(10).error_name, "org.freedesktop.DBus.Error.NoReply")
        self.plug()
        self.assertIsNone(Call(self.usbd.send_data, dbus.ByteArray(b"next"), dbus.Byte(4)).wait().error)
        wait_for(lambda: self.emu.capture() == b"next", what="the capture")

    def test_shared_memory_by_physical_address(self):
        size = 20 * 1024 * 1024
        handle, phys, data, free = self.emu.hold_shm(size, seed="twenty")
        self.assertNotEqual(phys, 0)
        self.plug()
        shm = self.usbd.send_shm_data

        # One buffer larger than a call: 8 + 8 + 4 MiB, each by its physical address.
        self.assertIsNone(Call(shm, dbus.Array([shm_map(handle, size)], signature="a{sv}")).wait().error)
        ep3 = self.emu.endpoint("ep3")
        self.assertEqual((ep3["ioctls"], ep3["ioctl_bytes"], ep3["writes"]), (3, size, 0))

        # With padding the last piece shares its call with the zeros: two ioctls, then one writev.
        self.assertIsNone(Call(shm, dbus.Array([shm_map(handle, size, padding=100)],
                                               signature="a{sv}")).wait().error)
        ep3 = self.emu.endpoint("ep3")
        self.assertEqual((ep3["ioctls"], ep3["writes"]), (5, 1))
        self.emu.wait_log("phys_buffers: 2 (16384kb)")

        wait_for(lambda: len(self.emu.capture()) == 2 * size + 100, what="the capture")
        self.assertTrue(self.emu.capture() == data + data + bytes(100))

        # Memory that is gone, or a range past the allocation, fails before anything is sent.
        for entry in (shm_map(handle, size + 1), shm_map(handle ^ 0x1000, 16)):
            call = Call(shm, dbus.Array([entry], signature="a{sv}")).wait()
            self.assertEqual(call.error_name, FAILED)
        free()
        call = Call(shm, dbus.Array([shm_map(handle, 16)], signature="a{sv}")).wait()
        self.assertEqual(call.error_name, FAILED)
        self.assertEqual(len(self.emu.capture()), 2 * size + 100)

    def test_open_file_receives_from_the_host(self):
        self.plug()
        data = os.urandom(3 * 1024 * 1024 + 17)
        self.usbd.close_file()
        self.usbd.open_file("/tmp/received.bin", len(data), 1234)  # answers before any data
        self.emu.ctl("ep1-push", "-", input=data)
        wait_for(lambda: os.path.exists(self.emu.inside("/tmp/received.bin")) and
                 os.path.getsize(self.emu.inside("/tmp/received.bin")) == len(data),
                 what="the received file")
        with open(self.emu.inside("/tmp/received.bin"), "rb") as f:
            self.assertEqual(f.read(), data)


if __name__ == "__main__":
    unittest.main(verbosity=2)
