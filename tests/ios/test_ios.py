"""The daemon's requests over the iOS link: D-Bus and socket clients' data reaches the emulated
iOS peer through the MFi stand-in whenever the link type is 2 or 3, and never the USB host."""

import os
import struct
import sys
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "support"))
sys.path.insert(0, os.path.join(HERE, "..", "daemon"))

import dbus  # noqa: E402

from test_dbus import FAILED, Call, file_list, file_map, pump, shm_map  # noqa: E402
from usbdtest import DaemonTestCase, OBJECT_PATH, SERVICE, wait_for  # noqa: E402


class IosLink(DaemonTestCase):

    def setUp(self):
        super().setUp()
        self.peer_capture = os.path.join(self.emu.tmp.name, "ios.bin")
        self.emu.ctl("ios-capture", self.peer_capture)
        self.usbd = self.emu.usbd()

    def link(self, value):
        props = dbus.Interface(self.emu.bus().get_object(SERVICE, OBJECT_PATH),
                               "org.freedesktop.DBus.Properties")
        wait_for(lambda: props.Get(SERVICE, "link_type") == value, what=f"link type {value}")

    def at_peer(self, expected):
        def received():
            with open(self.peer_capture, "rb") as f:
                return f.read()
        wait_for(lambda: len(received()) >= len(expected), what="the iOS peer's requests")
        self.assertTrue(received() == expected)

    def arrivals(self, kind):
        import json
        log = json.loads(self.emu.ctl("ios-log", "--json").stdout)
        return [a for a in log["arrivals"] if a["kind"] == kind]

    def socket_request(self, request_id, data, data_padding, handle, shm_offset, shm_size):
        entries = (struct.pack("<IIIIIQ", 1, len(data), 8 + 2 * 28 + 4, 0, data_padding, 0) +
                   struct.pack("<IIIIIQ", 2, shm_size, shm_offset, 0, 0, handle) +
                   struct.pack("<I", 0))
        with self.emu.connect_socket() as s:
            s.sendall(struct.pack("<II", 1, request_id) + entries + data)
            s.settimeout(20)
            self.assertEqual(struct.unpack("<Ii", s.recv(8)), (request_id, 0))

    def test_every_client_reaches_the_peer_and_the_usb_host_gets_nothing(self):
        contents = os.urandom(5000)
        with open(self.emu.inside("/tmp/f.bin"), "wb") as f:
            f.write(contents)
        handle, _, shm, _ = self.emu.hold_shm(65536, seed="ios")
        self.emu.ctl("plug")
        self.link(1)
        self.emu.ctl("ios", "mfi")  # MFi wins over the USB function link
        self.link(2)

        self.usbd.send_data(dbus.ByteArray(b"hello ios"), dbus.Byte(9))
        self.usbd.send_file(file_list(file_map("/tmp/f.bin", offset=100, size=3000, padding=8, session=70000),
                                      file_map("/tmp/f.bin", size=16, session=3)))
        self.usbd.send_shm_data(dbus.Array([shm_map(handle, 4096, padding=4, session=9)], signature="a{sv}"))
        self.socket_request(7, b"sock", 2, handle, 4096, 100)
        self.at_peer(b"hello ios" + contents[100:3100] + bytes(8) + contents[:16] +
                     shm[:4096] + bytes(4) + b"sock" + bytes(2) + shm[4096:4196])

        frames = [(f["total"], f["offset"], f["length"], f["session"]) for f in self.arrivals("frame")]
        self.assertEqual(frames, [(9, 0, 9, 0), (106, 0, 4, 0), (106, 4, 2, 0)])
        files = [(f["total"], f["request_offset"], f["file_offset"], f["size"], f["padding"], f["session"],
                  f["path"]) for f in self.arrivals("file")]
        self.assertEqual(files, [(3024, 0, 100, 3000, 8, 70000 & 0xFFFF, "/tmp/f.bin"),
                                 (3024, 3008, 0, 16, 0, 3, "/tmp/f.bin")])
        shms = [(s["total"], s["request_offset"], s["offset"], s["size"], s["padding"], s["session"],
                 s["handle"]) for s in self.arrivals("shm")]
        self.assertEqual(shms, [(4100, 0, 0, 4096, 4, 9, handle), (106, 6, 4096, 100, 0, 0, handle)])
        ep3 = self.emu.endpoint("ep3")
        self.assertEqual((ep3["bytes"], ep3["writes"], ep3["ioctls"]), (0, 0, 0))

    def test_usb_pull_as_the_ios_link_takes_over_holds_nothing_up(self):
        # A USB host that stops reading holds one write; then the controller is unbound (DISABLE,
        # then UNBIND, which counts as link up) and an iOS device comes.
        self.emu.ctl("plug")
        self.link(1)
        self.emu.ctl("stall")
        held = Call(self.usbd.send_data, dbus.ByteArray(b"A" * 100), dbus.Byte(100))
        pump(lambda: self.emu.endpoint("ep3")["waiting"] >= 1, what="the held write")
        self.emu.ctl("unplug")
        self.assertEqual(held.wait().error_name, FAILED)
        self.emu.ctl("event", "unbind")
        self.link(1)
        # No host reads the endpoint: the send fails instead of waiting for one.
        unbound = Call(self.usbd.send_data, dbus.ByteArray(b"B"), dbus.Byte(1), timeout=4)
        self.emu.ctl("ios", "mfi")
        self.link(2)
        self.assertEqual(unbound.wait(10).error_name, FAILED)
        # Nothing meant for the USB host holds the iOS link up.
        self.assertIsNone(Call(self.usbd.send_data, dbus.ByteArray(b"ios"), dbus.Byte(3),
                               timeout=5).wait(10).error)
        self.at_peer(b"ios")

    def test_transfers_follow_the_link(self):
        self.emu.ctl("plug")
        self.emu.ctl("ios", "mfi")
        self.link(2)
        self.usbd.send_data(dbus.ByteArray(b"to ios"), dbus.Byte(6))
        self.emu.ctl("ios", "none")  # MFi gone: back to the USB host
        self.link(1)
        self.usbd.send_data(dbus.ByteArray(b"to usb"), dbus.Byte(6))
        self.emu.ctl("unplug")
        self.emu.ctl("ios", "wifi")
        self.link(3)
        self.usbd.send_data(dbus.ByteArray(b" over wifi"), dbus.Byte(10))
        self.at_peer(b"to ios over wifi")
        self.assertEqual(self.emu.capture(), b"to usb")


if __name__ == "__main__":
    unittest.main()
