#!/usr/bin/python3
"""Writes fuzz_socket_request's starting inputs: the wire examples of the socket protocol and
the edges of its framing. Run from anywhere; the files go to corpus/socket_request/ beside it."""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
OUT = os.path.join(HERE, "corpus", "socket_request")


def entry(kind, size=0, offset=0, align=0, pad=0, handle=0):
    return struct.pack("<IIIIIQ", kind, size, offset, align, pad, handle)


def header(kind, request_id):
    return struct.pack("<II", kind, request_id)


END = struct.pack("<I", 0)

seeds = {
    # id 42, one memory entry of 5 bytes after the end entry: 45 bytes
    "example_45": header(1, 42) + entry(1, 5, 40) + END + b"hello",
    "empty_send": header(1, 1) + END,
    # memory, handle, an unknown type 3, memory; data after the end entry
    "mixed_skip": header(1, 7) + entry(1, 3, 124, 4, 1) + entry(2, 4096, 512, 0, 0, 0x1122334455667788)
    + entry(3) + entry(1, 2, 127) + END + b"abcde",
    "interrupt": header(2, 0),
    "unknown_kind": header(3, 9) + END,
    "short_7": header(1, 5)[:7],
    # 145 entries and the end entry: 4072 bytes, the most a read can hold
    "max_entries": header(1, 145) + entry(2, 1) * 145 + END,
    "no_end_entry": header(1, 3) + entry(1, 1, 8),
    "data_past_read": header(1, 4) + entry(1, 10, 36) + END + b"abc",
    "offset_wraps": header(1, 6) + entry(1, 0x20, 0xFFFFFFF0) + END,
    # memory data that overlaps the header: legal, the data is just bytes of the read
    "data_overlaps_header": header(1, 8) + entry(1, 8, 0) + END,
}

os.makedirs(OUT, exist_ok=True)
for name, data in seeds.items():
    with open(os.path.join(OUT, name), "wb") as f:
        f.write(data)
