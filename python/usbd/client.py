"""Client side of usbd's request socket: encodes requests, decodes responses, and offers a
small blocking connection. Python standard library only.

A send request is answered with one 8-byte response (request id, status 0 sent / -1 failed)
once the daemon has transferred it; responses on one connection come in the order of the
requests. An interrupt request makes the daemon signal its transfer thread once, which fails a
USB write blocked at that moment, and is never answered. The daemon takes every read as one
whole request, so each request must reach it in one write of at most MAX_REQUEST_SIZE bytes.
"""

import errno
import select
import socket
import struct
import time

# The values below are the daemon's, from common/include/usbd/protocol.h in its source tree; the
# client's tests hold this copy to them.
DEFAULT_SOCKET_PATH = "/tmp/usbd-socket"
MAX_REQUEST_SIZE = 4096
RESPONSE_SIZE = 8

# The daemon hands a request to the USB endpoint in at most MAX_SEGMENTS pieces: one for the
# data of each memory or handle entry and one more for its padding when that is not 0. It finds
# a longer request out only when it comes to send it and then answers -1, which looks like a
# broken link; encode() refuses one instead.
MAX_SEGMENTS = 32

# Entry types of a send request. Any other type is skipped by the daemon.
ENTRY_END = 0
ENTRY_MEMORY = 1
ENTRY_HANDLE = 2

_KIND_SEND = 1
_KIND_INTERRUPT = 2
_HEADER = struct.Struct("<II")            # kind, request id
_ENTRY = struct.Struct("<IIIIIQ")         # type, size, offset, alignment, padding, handle
_END_ENTRY_SIZE = 4                       # only the end entry's type word is sent
_RESPONSE = struct.Struct("<Ii")          # request id, status

_U32_MAX = 0xFFFFFFFF
_U64_MAX = 0xFFFFFFFFFFFFFFFF


class RequestError(ValueError):
    """A request that the daemon could not take as it is; the message says why."""


def segments_of(element_padding):
    """The segments one memory or handle entry takes."""
    return 2 if element_padding else 1


def _check(name, value, maximum=_U32_MAX):
    if isinstance(value, bool) or not isinstance(value, int):
        raise TypeError(f"{name} must be an integer, not {type(value).__name__}")
    if not 0 <= value <= maximum:
        raise ValueError(f"{name} {value} is outside 0..{maximum}")
    return value


class SendRequest:
    """A send request being put together. Entries go out in the order they are added; the data
    of memory entries is placed after the end entry, in the same order."""

    def __init__(self, request_id):
        self.request_id = _check("request id", request_id)
        self._entries = []   # (type, size, offset, alignment, padding, handle, data)

    def add_memory(self, data, element_alignment=0, element_padding=0):
        """Bytes that travel inside the request; the daemon sends them followed by
        element_padding zero bytes."""
        data = bytes(data)
        self._entries.append((ENTRY_MEMORY, len(data), 0, _check("element alignment", element_alignment),
                              _check("element padding", element_padding), 0, data))
        return self

    def add_handle(self, handle, offset, size, element_alignment=0, element_padding=0):
        """size bytes from offset in the platform shared-memory buffer named by handle."""
        self._entries.append((ENTRY_HANDLE, _check("size", size), _check("offset", offset),
                              _check("element alignment", element_alignment),
                              _check("element padding", element_padding),
                              _check("handle", handle, _U64_MAX), b""))
        return self

    def add_other(self, entry_type):
        """An entry of another type, all other fields zero: the daemon skips it. Type 0 would
        end the list early and is refused."""
        if _check("entry type", entry_type) in (ENTRY_END, ENTRY_MEMORY, ENTRY_HANDLE):
            raise ValueError(f"entry type {entry_type} is not one the daemon skips")
        self._entries.append((entry_type, 0, 0, 0, 0, 0, b""))
        return self

    @property
    def entry_count(self):
        return len(self._entries)

    def encoded_size(self):
        """Header, entries, end entry and memory data."""
        return (_HEADER.size + len(self._entries) * _ENTRY.size + _END_ENTRY_SIZE
                + sum(len(e[6]) for e in self._entries))

    def segment_count(self):
        """The segments the daemon needs to send it (see MAX_SEGMENTS)."""
        return sum(segments_of(e[4]) for e in self._entries if e[0] in (ENTRY_MEMORY, ENTRY_HANDLE))

    def encode(self):
        """The request's bytes. Raises RequestError when it would not fit in MAX_REQUEST_SIZE
        bytes or needs more than MAX_SEGMENTS segments."""
        size = self.encoded_size()
        if size > MAX_REQUEST_SIZE:
            raise RequestError(f"the request needs {size} bytes; one request holds at most "
                               f"{MAX_REQUEST_SIZE}")
        segments = self.segment_count()
        if segments > MAX_SEGMENTS:
            raise RequestError(f"the request needs {segments} segments (one per entry, one more "
                               f"for its padding); the daemon sends at most {MAX_SEGMENTS} in one "
                               f"request (32 entries, or 16 with padding)")
        out = bytearray(_HEADER.pack(_KIND_SEND, self.request_id))
        data_offset = _HEADER.size + len(self._entries) * _ENTRY.size + _END_ENTRY_SIZE
        data = bytearray()
        for entry_type, entry_size, offset, alignment, padding, handle, payload in self._entries:
            if entry_type == ENTRY_MEMORY:
                offset = data_offset + len(data)
                data += payload
            out += _ENTRY.pack(entry_type, entry_size, offset, alignment, padding, handle)
        out += bytes(_END_ENTRY_SIZE)
        out += data
        return bytes(out)


def encode_interrupt():
    """The 8 bytes of an interrupt request (its id field is present but unused)."""
    return _HEADER.pack(_KIND_INTERRUPT, 0)


class Response:
    __slots__ = ("request_id", "status")

    def __init__(self, request_id, status):
        self.request_id = request_id
        self.status = status

    @property
    def sent(self):
        return self.status == 0

    def __eq__(self, other):
        return isinstance(other, Response) and (self.request_id, self.status) == (other.request_id, other.status)

    def __repr__(self):
        return f"Response(request_id={self.request_id}, status={self.status})"


def decode_response(data):
    """Decodes the first RESPONSE_SIZE bytes; ValueError when fewer are given."""
    if len(data) < RESPONSE_SIZE:
        raise ValueError(f"a response is {RESPONSE_SIZE} bytes, got {len(data)}")
    return Response(*_RESPONSE.unpack_from(data))


class Connection:
    """One blocking connection to the daemon."""

    def __init__(self, path=DEFAULT_SOCKET_PATH):
        self._sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._partial = b""
        try:
            self._sock.connect(path)
        except BaseException:
            self._sock.close()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def fileno(self):
        return self._sock.fileno()

    def send(self, request):
        """Writes the request (bytes, or a SendRequest) in one write. A partial write raises
        OSError(EMSGSIZE): the daemon would have taken the piece for a whole request."""
        if isinstance(request, SendRequest):
            request = request.encode()
        if len(request) > MAX_REQUEST_SIZE:
            raise RequestError(f"the request is {len(request)} bytes; one request holds at most "
                               f"{MAX_REQUEST_SIZE}")
        written = self._sock.send(request)
        if written != len(request):
            raise OSError(errno.EMSGSIZE, "the request went out in pieces")

    def receive(self, timeout=None):
        """Waits up to timeout seconds (None: no limit) for the next whole response.
        TimeoutError when none came in time (a partly received response is kept for the next
        call), ConnectionResetError when the daemon closed the connection."""
        deadline = None if timeout is None else time.monotonic() + timeout
        while len(self._partial) < RESPONSE_SIZE:
            wait = None if deadline is None else max(0.0, deadline - time.monotonic())
            ready, _, _ = select.select([self._sock], [], [], wait)
            if not ready:
                raise TimeoutError("no response in time")
            chunk = self._sock.recv(RESPONSE_SIZE - len(self._partial))
            if not chunk:
                raise ConnectionResetError(errno.ECONNRESET, "the daemon closed the connection")
            self._partial += chunk
        response, self._partial = decode_response(self._partial), b""
        return response

    def request(self, request, timeout=None):
        """Sends a send request and waits for its response."""
        self.send(request)
        return self.receive(timeout)

    def interrupt(self):
        self.send(encode_interrupt())

    def shutdown_sending(self):
        """Tells the daemon that no more requests follow; responses still arrive."""
        self._sock.shutdown(socket.SHUT_WR)

    def close(self):
        self._sock.close()


__all__ = [
    "DEFAULT_SOCKET_PATH", "MAX_REQUEST_SIZE", "RESPONSE_SIZE", "MAX_SEGMENTS",
    "ENTRY_END", "ENTRY_MEMORY", "ENTRY_HANDLE",
    "RequestError", "SendRequest", "Response", "Connection",
    "segments_of", "encode_interrupt", "decode_response",
]
