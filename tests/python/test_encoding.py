"""The Python client's encoding, against the bytes the daemon expects and the values of the
protocol header that the daemon and the C++ client are built with."""

import os
import struct
import subprocess
import sys
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "python"))

import usbd  # noqa: E402
from usbd import client as wire  # noqa: E402

PROTOCOL_VALUES = os.environ.get("USBD_PROTOCOL_VALUES",
                                 os.path.join(HERE, "..", "..", "build", "tests", "python", "protocol_values"))


class Encoding(unittest.TestCase):

    def test_the_clients_own_copy_of_the_protocol_values_is_the_daemons(self):
        # The Python client cannot include the header, so it keeps a copy; this holds the copy to
        # what the C++ side is compiled with.
        lines = subprocess.run([PROTOCOL_VALUES], capture_output=True, text=True, check=True).stdout
        header = dict(line.split(" ", 1) for line in lines.splitlines())
        number = {name: int(value) for name, value in header.items() if name != "socket_path"}
        self.assertEqual(usbd.DEFAULT_SOCKET_PATH, header["socket_path"])
        self.assertEqual(usbd.MAX_REQUEST_SIZE, number["max_request_size"])
        self.assertEqual(usbd.MAX_SEGMENTS, number["max_segments"])
        self.assertEqual(usbd.RESPONSE_SIZE, number["response_size"])
        self.assertEqual((usbd.ENTRY_END, usbd.ENTRY_MEMORY, usbd.ENTRY_HANDLE),
                         (number["entry_end"], number["entry_memory"], number["entry_handle"]))
        self.assertEqual((wire._KIND_SEND, wire._KIND_INTERRUPT),
                         (number["kind_send"], number["kind_interrupt"]))
        self.assertEqual(wire._END_ENTRY_SIZE, number["end_entry_size"])

        def offsets(layout):
            """Where each field of a struct layout starts, and its whole size."""
            return [struct.calcsize(layout[:i]) for i in range(1, len(layout))], struct.calcsize(layout)

        self.assertEqual(offsets(wire._HEADER.format),
                         ([number["kind_at"], number["request_id_at"]], number["header_size"]))
        self.assertEqual(offsets(wire._ENTRY.format),
                         ([number[f"entry_{field}_at"]
                           for field in ("type", "size", "offset", "alignment", "padding", "handle")],
                          number["entry_size"]))
        self.assertEqual(offsets(wire._RESPONSE.format),
                         ([number["response_id_at"], number["response_status_at"]], number["response_size"]))
        self.assertEqual(usbd.Response(1, number["status_sent"]).sent, True)
        self.assertEqual(usbd.Response(1, number["status_failed"]).sent, False)

    def test_the_documented_example_and_its_answers(self):
        request = usbd.SendRequest(42).add_memory(b"hello").encode()
        self.assertEqual(request, bytes.fromhex("01000000 2A000000 01000000 05000000 28000000")
                         + bytes(16) + bytes(4) + b"hello")
        self.assertEqual(usbd.decode_response(bytes.fromhex("2A00000000000000")), usbd.Response(42, 0))
        failed = usbd.decode_response(bytes.fromhex("2A000000FFFFFFFF") + b"extra")
        self.assertEqual((failed.request_id, failed.status, failed.sent), (42, -1, False))
        with self.assertRaises(ValueError):
            usbd.decode_response(bytes(7))
        self.assertEqual(usbd.encode_interrupt(), bytes.fromhex("0200000000000000"))
        self.assertEqual(usbd.SendRequest(7).encode(), bytes.fromhex("01000000 07000000 00000000"))

    def test_mixed_entries_keep_their_order_and_data_follows_the_end_entry(self):
        request = (usbd.SendRequest(0xFFFFFFFF)
                   .add_memory(b"ab", element_alignment=4, element_padding=2)
                   .add_other(3)
                   .add_handle(0x1122334455667788, offset=16, size=4096, element_padding=1)
                   .add_memory(b"cde"))
        data = request.encode()
        self.assertEqual(len(data), request.encoded_size())
        self.assertEqual(len(data), 8 + 4 * 28 + 4 + 5)
        self.assertEqual(struct.unpack_from("<II", data), (1, 0xFFFFFFFF))
        entries = [struct.unpack_from("<IIIIIQ", data, 8 + 28 * i) for i in range(4)]
        data_start = 8 + 4 * 28 + 4
        self.assertEqual(entries, [
            (1, 2, data_start, 4, 2, 0),
            (3, 0, 0, 0, 0, 0),
            (2, 4096, 16, 0, 1, 0x1122334455667788),
            (1, 3, data_start + 2, 0, 0, 0),
        ])
        self.assertEqual(struct.unpack_from("<I", data, 8 + 4 * 28), (0,))
        self.assertEqual(data[data_start:], b"abcde")
        # The skipped entry takes no segment; each padding one more.
        self.assertEqual(request.segment_count(), 5)

    def test_requests_the_daemon_could_not_take_are_refused(self):
        # Exactly 4096 bytes fit; one byte more does not.
        room = usbd.MAX_REQUEST_SIZE - (8 + 28 + 4)
        self.assertEqual(len(usbd.SendRequest(1).add_memory(bytes(room)).encode()), 4096)
        with self.assertRaisesRegex(usbd.RequestError, "4097 bytes"):
            usbd.SendRequest(1).add_memory(bytes(room + 1)).encode()
        # 145 skipped entries fill a request; a 146th does not fit.
        many = usbd.SendRequest(1)
        for _ in range(145):
            many.add_other(9)
        self.assertEqual(len(many.encode()), 4072)
        with self.assertRaises(usbd.RequestError):
            many.add_other(9).encode()

        # 32 segments: 32 entries, or 16 with padding.
        for padding, allowed in ((0, 32), (5, 16)):
            request = usbd.SendRequest(1)
            for _ in range(allowed):
                request.add_handle(1, 0, 1, element_padding=padding)
            request.encode()
            with self.assertRaisesRegex(usbd.RequestError, "segments"):
                request.add_memory(b"x").encode()

        # Values outside what the wire format carries.
        for bad in (lambda: usbd.SendRequest(-1), lambda: usbd.SendRequest(1 << 32),
                    lambda: usbd.SendRequest(1).add_handle(1 << 64, 0, 1),
                    lambda: usbd.SendRequest(1).add_handle(1, 0, 1 << 32),
                    lambda: usbd.SendRequest(1).add_memory(b"", element_padding=-1),
                    lambda: usbd.SendRequest(1).add_other(0),
                    lambda: usbd.SendRequest(1).add_other(usbd.ENTRY_MEMORY)):
            with self.assertRaises(ValueError):
                bad()
        with self.assertRaises(TypeError):
            usbd.SendRequest(1).add_handle(1, 0, 1.5)


if __name__ == "__main__":
    unittest.main(verbosity=2)
