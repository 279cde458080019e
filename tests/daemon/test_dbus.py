"""The daemon end to end over D-Bus and USB, on the device emulator, with a real D-Bus client."""

import ctypes
import os
import platform
import signal
import sys
import time
import unittest
import xml.etree.ElementTree as ElementTree

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "support"))

import dbus  # noqa: E402
import dbus.mainloop.glib  # noqa: E402
from gi.repository import GLib  # noqa: E402

from usbdtest import OBJECT_PATH, DaemonTestCase, wait_for  # noqa: E402

dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)

FAILED = "org.freedesktop.DBus.Error.Failed"
# writev's system call number on this machine.
WRITEV = {"x86_64": 20, "aarch64": 66, "armv7l": 146, "armv8l": 146}[platform.machine()]


def thread_in_call(pid, number):
    """The id of a thread of `pid` that is inside system call `number`, or None."""
    for tid in os.listdir(f"/proc/{pid}/task"):
        try:
            with open(f"/proc/{pid}/task/{tid}/syscall") as f:
                if f.read().split()[0] == str(number):
                    return int(tid)
        except (OSError, IndexError):
            continue
    return None


def tgkill(pid, tid, sig):
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.syscall(TGKILL, pid, tid, sig) != 0:
        raise OSError(ctypes.get_errno(), "tgkill")


TGKILL = {"x86_64": 234, "aarch64": 131, "armv7l": 268, "armv8l": 268}[platform.machine()]


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

    def __init__(self, method, *args, timeout=30, answers=None, label=None):
        self.done = False
        self.error = None
        self._answers = answers
        self._label = label
        method(*args, reply_handler=self._reply, error_handler=self._error, timeout=timeout)

    def _reply(self, *_):
        self._finish()

    def _error(self, error):
        self.error = error
        self._finish()

    def _finish(self):
        self.done = True
        if self._answers is not None:
            self._answers.append(self._label)

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

    # --- the interface ---------------------------------------------------------------------

    def test_interface_file_describes_what_the_daemon_introspects(self):
        def members(xml):
            interface = ElementTree.fromstring(xml).find("interface[@name='com.korvane.usbd']")
            self.assertIsNotNone(interface)
            return sorted(
                (element.tag, element.get("name"), element.get("type"), element.get("access"),
                 tuple((arg.get("name"), arg.get("type"), arg.get("direction", "in"))
                       for arg in element.findall("arg")))
                for element in interface if element.tag in ("method", "property", "signal"))

        introspected = dbus.Interface(self.emu.bus().get_object("com.korvane.usbd", OBJECT_PATH),
                                      "org.freedesktop.DBus.Introspectable").Introspect()
        with open(os.path.join(os.path.dirname(__file__), "..", "..", "docs", "dbus",
                               "com.korvane.usbd.xml"), encoding="utf-8") as f:
            documented = f.read()
        self.assertEqual(members(documented), members(str(introspected)))

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

        # High speed is not super speed. The speed is read on every link-up, in order, so once a
        # later super-speed link has been announced, the high-speed one would have been too.
        self.plug("--speed", "high-speed", "--maxpower", "100")
        self.expect_change("charge_current_max", 100)
        self.emu.ctl("unplug")
        self.expect_change("link_type", 0)
        self.plug("--speed", "super-speed", "--maxpower", "100")
        self.expect_change("usb_super_speed", 1)
        self.assertNotIn(("usb_super_speed", 1), self.changes)
        self.assertNotIn(("usb_super_speed", 0), self.changes)

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

    def test_cable_pull_ends_every_request_for_the_old_host(self):
        # The host stops reading: the first request waits in its write, the others in the queue.
        self.plug()
        self.emu.ctl("stall")
        in_flight = Call(self.usbd.send_data, dbus.ByteArray(b"A" * 200), dbus.Byte(200))
        pump(lambda: self.emu.endpoint("ep3")["waiting"] >= 1, what="the held write")
        queued = [Call(self.usbd.send_data, dbus.ByteArray(b"B%d" % i), dbus.Byte(2), timeout=2)
                  for i in range(5)]
        self.emu.ctl("unplug")
        self.expect_change("link_type", 0)
        self.assertEqual(in_flight.wait().error_name, FAILED)
        # Each waiting request fails at once or is dropped unanswered by the link change; none
        # waits for the next host.
        for call in queued:
            self.assertIn(call.wait(10).error_name, (FAILED, "org.freedesktop.DBus.Error.NoReply"))
        # Unbound, the link type says USB but no host is there: a send fails, it does not wait.
        self.emu.ctl("event", "unbind")
        self.expect_change("link_type", 1)
        self.emu.ctl("release")
        self.assertEqual(Call(self.usbd.send_data, dbus.ByteArray(b"C"), dbus.Byte(1),
                              timeout=5).wait(10).error_name, FAILED)
        # The next host gets only what was asked for after it came. The link type already reads
        # 1 (UNBIND counts as up); the host is there once BIND (0) and ENABLE (1) came through.
        self.emu.ctl("plug")
        self.expect_change("link_type", 0)
        self.expect_change("link_type", 1)
        # The reply comes once the host took the bytes: nothing of the old host's requests came
        # before them, and nothing can come after.
        self.assertIsNone(Call(self.usbd.send_data, dbus.ByteArray(b"next"), dbus.Byte(4)).wait().error)
        self.assertEqual(self.emu.capture(), b"next")

    def test_a_signal_ends_the_blocked_write_whoever_sent_it(self):
        # Not a client's interrupt: a SIGUSR1 from anywhere that reaches the transfer thread in
        # its write fails that request; the same signal while the thread waits for work changes
        # nothing, and the next request goes out whole.
        self.plug()
        self.emu.ctl("stall")
        held = Call(self.usbd.send_data, dbus.ByteArray(b"A" * 100), dbus.Byte(100))
        pump(lambda: self.emu.endpoint("ep3")["waiting"] >= 1, what="the held write")
        pid = self.emu.pid_of("usbd")
        writer = wait_for(lambda: thread_in_call(pid, WRITEV), what="the thread in writev()")
        tgkill(pid, writer, signal.SIGUSR1)
        self.assertEqual(held.wait().error_name, FAILED)
        self.emu.wait_log("writev() failed: 4")
        self.emu.ctl("release")
        tgkill(pid, writer, signal.SIGUSR1)
        self.assertIsNone(Call(self.usbd.send_data, dbus.ByteArray(b"next"), dbus.Byte(4)).wait().error)
        wait_for(lambda: self.emu.capture() == b"next", what="the capture")

    def test_bad_values_are_queued_and_fail_at_their_turn(self):
        # The decoders look at keys and types only: a path that is not a regular file and a
        # negative padding are queued like any request and fail when their turn comes, through
        # the transport, without a byte of them sent; a FIFO does not hold the queue up.
        os.mkfifo(self.emu.inside("/tmp/fifo"))
        self.write_inside("/tmp/ok.bin", b"regular")
        self.plug()
        self.emu.ctl("stall")
        answers = []
        first = Call(self.usbd.send_data, dbus.ByteArray(b"first"), dbus.Byte(5),
                     answers=answers, label="first")
        pump(lambda: self.emu.endpoint("ep3")["waiting"] >= 1, what="the held write")
        bad = [Call(self.usbd.send_file, file_list(entry), answers=answers, label=label)
               for label, entry in (("fifo", file_map("/tmp/fifo", size=1)),
                                    ("device", file_map("/dev/null", size=1)),
                                    ("directory", file_map("/tmp", size=1)),
                                    ("negative padding", file_map("/tmp/ok.bin", size=7, padding=-1)))]
        last = Call(self.usbd.send_file, file_list(file_map("/tmp/ok.bin", size=7)),
                    answers=answers, label="last")
        self.emu.ctl("release")
        for call in [first] + bad + [last]:
            call.wait()
        self.assertEqual(answers, ["first", "fifo", "device", "directory", "negative padding", "last"])
        self.assertIsNone(first.error)
        self.assertEqual([call.error_name for call in bad], [FAILED] * 4)
        self.assertIsNone(last.error)
        wait_for(lambda: self.emu.capture() == b"firstregular", what="the capture")
        self.emu.wait_log("failed to map buffer")

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


    def test_receives_never_give_up_by_time_and_keep_their_order(self):
        # time_ms is accepted and not used: a receive whose time ran out long before the host
        # sends still takes the host's bytes, and the receive asked after it gets only what
        # follows them.
        self.plug()
        first, second = "/tmp/r0.bin", "/tmp/r1.bin"
        self.usbd.open_file(first, 5, 1)
        self.usbd.open_file(second, 3, 1)
        pump(lambda: self.emu.endpoint("ep1")["waiting"] >= 1, what="a receive reading ep1")
        for piece in (b"hel", b"lo", b"abc"):
            self.emu.ctl("ep1-push", "-", input=piece)

        def content(path):
            try:
                with open(self.emu.inside(path), "rb") as f:
                    return f.read()
            except FileNotFoundError:
                return None
        wait_for(lambda: content(second) == b"abc", what="the second file")
        self.assertEqual(content(first), b"hello")

    # --- what the object offers ------------------------------------------------------------

    def test_only_the_interface_is_offered(self):
        obj = self.emu.bus().get_object("com.korvane.usbd", OBJECT_PATH)
        props = dbus.Interface(obj, "org.freedesktop.DBus.Properties")
        self.assertEqual(sorted(props.GetAll("com.korvane.usbd")),
                         ["charge_current_max", "link_type", "usb_super_speed"])
        # Qt's own objectName is not the service's: neither readable nor writable on the bus.
        for interface in ("com.korvane.usbd", ""):
            with self.assertRaises(dbus.DBusException):
                props.Get(interface, "objectName")
            with self.assertRaises(dbus.DBusException):
                props.Set(interface, "objectName", dbus.String("renamed"))
        with self.assertRaises(dbus.DBusException):
            props.Set("com.korvane.usbd", "link_type", dbus.Int32(3))
        with self.assertRaises(dbus.DBusException):
            obj.deleteLater(dbus_interface="com.korvane.usbd")
        self.assertEqual(self.prop("link_type"), 0)

    # --- the controller --------------------------------------------------------------------

    def test_the_first_controller_in_directory_order_is_read(self):
        udc = self.emu.inside("/sys/class/udc")
        (emulated,) = os.listdir(udc)
        # A second controller whose name sorts first or last, whichever makes the directory's
        # own order differ from the sorted one.
        for extra in ("aaa-udc.9", "zzz-udc.9"):
            os.mkdir(os.path.join(udc, extra))
            order = os.listdir(udc)
            if order[0] != sorted(order)[0]:
                break
            os.rmdir(os.path.join(udc, extra))
        else:
            self.skipTest("this filesystem lists the controllers in name order")
        first, second = order

        def controller(name, state, speed):
            if name == emulated:
                self.emu.ctl("udc-state", state)
                self.emu.ctl("speed", speed)
            else:
                for attribute, text in (("state", state), ("current_speed", speed)):
                    with open(os.path.join(udc, name, attribute), "w") as f:
                        f.write(text + "\n")
        controller(first, "configured", "super-speed")
        controller(second, "not attached", "high-speed")
        self.emu.ctl("maxpower", "500")
        self.emu.ctl("event", "enable")
        self.expect_change("link_type", 1)
        self.expect_change("charge_current_max", 500)
        self.expect_change("usb_super_speed", 1)


if __name__ == "__main__":
    unittest.main(verbosity=2)
