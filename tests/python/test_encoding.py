"""The Python client's encoding, against the bytes the daemon expects and the C++ client's
limits."""

import os
import struct
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "..", "python"))

import usbd  # noqa: E402


class Encoding(unittest.TestCase):

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
