"""The Python client against the real daemon on the device emulator."""

import os
import sys
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "support"))
sys.path.insert(0, os.path.join(HERE, "..", "..", "python"))

import usbd  # noqa: E402
from usbdtest import DaemonTestCase, wait_for  # noqa: E402


class PythonClient(DaemonTestCase):

    def connect(self):
        connection = wait_for(lambda: self._try_connect(), what="the request socket")
        self.addCleanup(connection.close)
        return connection

    def _try_connect(self):
        try:
            return usbd.Connection(self.emu.socket_path())
        except OSError:
            return None

    def plug(self):
        self.emu.ctl("plug", "--speed", "super-speed")
        # The link is up once a request goes through. A probe that meets the link change in the
        # queue is dropped unanswered, so one that gets no answer counts as "not yet".
        probe = self.connect()

        def probe_sent():
            try:
                return probe.request(usbd.SendRequest(0), timeout=1).sent
            except TimeoutError:
                return False
        wait_for(probe_sent, what="the USB link")

    def test_entries_arrive_in_order_and_requests_are_answered(self):
        self.plug()
        handle, _, shm_bytes, _ = self.emu.hold_shm(8192, "py")
        before = len(self.emu.capture())
        connection = self.connect()
        first = (usbd.SendRequest(1).add_memory(b"head", element_padding=3)
                 .add_other(7)
                 .add_handle(handle, offset=100, size=1000)
                 .add_memory(b"tail"))
        # Each request waits for its answer: the daemon takes one read as one request, so two
        # written back to back could reach it as one.
        self.assertEqual(connection.request(first, timeout=10), usbd.Response(1, 0))
        self.assertEqual(connection.request(usbd.SendRequest(2).add_memory(b"second"), timeout=10),
                         usbd.Response(2, 0))
        expected = b"head" + bytes(3) + shm_bytes[100:1100] + b"tail" + b"second"
        wait_for(lambda: len(self.emu.capture()) - before >= len(expected), what="the bytes at the host")
        self.assertEqual(self.emu.capture()[before:], expected)

    def wait_for_write_to_hang(self):
        wait_for(lambda: self.emu.endpoint("ep3")["waiting"] > 0, what="the write to hang at the host")

    def test_interrupt_and_a_dropped_request(self):
        self.plug()
        client = self.connect()
        interrupter = self.connect()
        self.emu.ctl("stall")
        client.send(usbd.SendRequest(5).add_memory(b"x" * 1000))
        # An interrupt that finds no write blocked changes nothing, so it waits for the write.
        self.wait_for_write_to_hang()
        interrupter.interrupt()
        self.assertEqual(client.receive(timeout=10), usbd.Response(5, -1))
        self.emu.ctl("release")

        # When the cable goes, the request in flight fails; one still queued fails at once or is
        # dropped unanswered by the link change, and is never reported as sent.
        self.emu.ctl("stall")
        client.send(usbd.SendRequest(6).add_memory(b"held"))
        client.send(usbd.SendRequest(7).add_memory(b"queued"))
        self.wait_for_write_to_hang()
        self.emu.ctl("unplug")
        self.emu.ctl("release")
        answered = []
        with self.assertRaises(TimeoutError):
            while True:
                answered.append(client.receive(timeout=1))
        self.assertIn(usbd.Response(6, -1), answered)
        for response in answered:
            self.assertIn(response, (usbd.Response(6, -1), usbd.Response(7, -1)))
        with self.assertRaises(TimeoutError):
            interrupter.receive(timeout=0.2)


if __name__ == "__main__":
    unittest.main(verbosity=2)
