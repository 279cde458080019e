"""The chaos run's bytes and its verdict: how payloads describe themselves, and the checker.

Everything a client sends is made of pieces (a socket entry, a send_file map, a send_data
array). Each piece starts with a 36-byte header naming its request (client, sequence), its place
(piece, pieces), its length with the header, the zero padding sent after it, the request's
length on the wire and the CRC-32 of its body; the header has a CRC of its own. The body is a
pattern of 8-byte blocks (a key of the piece, the block's index), so a shifted, repeated or
foreign block shows at once, and any prefix of a piece can be compared byte for byte. The magic
has no zero byte and every 8 bytes of a body hold a zero (the index's high byte), so a header
can be found again after a cut-off piece: the stream is parsed from header to header.

Files that the host feeds to open_file are made the same way (chaos_host.c writes them): a
24-byte header (magic, feed number, length, body CRC, header CRC) and the same kind of body.

The checker works on the run's record (requests with their answers, the host's connections, the
faults, the receives, the daemon's resources), all timed on the guest's one monotonic clock,
which the clients, the fault injector and the host program read alike. See check() for what
counts as a violation.
"""

import array
import bisect
import json
import os
import struct
import sys
import zlib

PIECE_MAGIC = b"\xa7CHAOS\xc3\x5a"
PIECE_HEADER = struct.Struct("<8sHBBIIIIII")
FEED_MAGIC = b"\xa7FEED!\xc3\x5a"
FEED_HEADER = struct.Struct("<8sIIII")
FEED_KEY = 0xFEEDF00D
assert PIECE_HEADER.size == 36 and FEED_HEADER.size == 24
assert 0 not in PIECE_MAGIC and 0 not in FEED_MAGIC


def pattern(key, size):
    """size bytes of 8-byte blocks: the 32-bit key, then the block's index, little-endian."""
    blocks = (size + 7) // 8
    out = bytearray(blocks * 8)
    key_bytes = struct.pack("<I", key & 0xFFFFFFFF)
    index = array.array("I", range(blocks))
    if sys.byteorder != "little":
        index.byteswap()
    index = index.tobytes()
    for j in range(4):
        out[j::8] = key_bytes[j:j + 1] * blocks
        out[4 + j::8] = index[j::4]
    return bytes(out[:size])


def piece_key(client, seq, piece):
    return zlib.crc32(struct.pack("<HIB", client, seq, piece))


class Request:
    """One request as its client made it: pieces of (length with header, padding)."""

    __slots__ = ("client", "seq", "kind", "pieces", "made", "answered", "status", "_crcs")

    def __init__(self, client, seq, kind, pieces, made=None):
        self.client, self.seq, self.kind = client, seq, kind
        self.pieces = [tuple(p) for p in pieces]
        self.made = made
        self.answered = None   # monotonic time of the answer
        self.status = None     # "ok", "failed", or None: never answered
        self._crcs = None

    @property
    def key(self):
        return (self.client, self.seq)

    @property
    def wire_size(self):
        return sum(length + padding for length, padding in self.pieces)

    def piece_offset(self, index):
        return sum(length + padding for length, padding in self.pieces[:index])

    def body(self, index):
        return pattern(piece_key(self.client, self.seq, index), self.pieces[index][0] - PIECE_HEADER.size)

    def header(self, index, body_crc=None):
        length, padding = self.pieces[index]
        if body_crc is None:
            body_crc = zlib.crc32(self.body(index))
        fields = (PIECE_MAGIC, self.client, index, len(self.pieces), self.seq, length, padding,
                  self.wire_size, body_crc)
        head = PIECE_HEADER.pack(*fields, 0)[:-4]
        return head + struct.pack("<I", zlib.crc32(head))

    def piece_data(self, index):
        """What the client hands over for one piece: header and body, without the padding."""
        body = self.body(index)
        return self.header(index, zlib.crc32(body)) + body

    def wire(self, start_piece, limit):
        """The request's bytes on the wire from the start of a piece, at most limit of them."""
        out = bytearray()
        for index in range(start_piece, len(self.pieces)):
            if len(out) >= limit:
                break
            out += self.piece_data(index)
            out += bytes(self.pieces[index][1])
        return bytes(out[:limit])

    def to_json(self):
        return [self.client, self.seq, self.kind, self.pieces, self.made, self.answered, self.status]

    @classmethod
    def from_json(cls, item):
        request = cls(item[0], item[1], item[2], item[3], item[4])
        request.answered, request.status = item[5], item[6]
        return request


def feed_data(feed, size):
    """The bytes the host sends for one receive: header and body, size bytes in all."""
    body = pattern(feed ^ FEED_KEY, size - FEED_HEADER.size)
    head = FEED_HEADER.pack(FEED_MAGIC, feed, size, zlib.crc32(body), 0)[:-4]
    return head + struct.pack("<I", zlib.crc32(head)) + body


def _valid_piece_header(data, at):
    raw = data[at:at + PIECE_HEADER.size]
    if len(raw) < PIECE_HEADER.size:
        return None
    fields = PIECE_HEADER.unpack(raw)
    if zlib.crc32(raw[:-4]) != fields[-1]:
        return None
    return fields


class Segment:
    """Bytes of a stream from one piece header up to the next (or the end), as judged."""

    __slots__ = ("connection", "position", "size", "key", "wire_start", "problem")

    def __init__(self, connection, position, size, key=None, wire_start=0, problem=None):
        self.connection, self.position, self.size = connection, position, size
        self.key, self.wire_start, self.problem = key, wire_start, problem


class StreamParser:
    """Cuts one connection's stream into segments that start at a piece header, fed in chunks,
    and judges each against the request its header names. A segment must be a prefix of that
    request's bytes from the header's piece on; bytes before the first header belong to no
    request."""

    def __init__(self, connection, requests):
        self.connection = connection
        self.requests = requests
        self.segments = []
        self._buffer = bytearray()
        self._base = 0          # stream position of _buffer[0]
        self._scan = 0          # no header starts in _buffer before this
        self._open = False      # whether _buffer starts with a segment's header

    def feed(self, data):
        self._buffer += data
        while True:
            at = self._buffer.find(PIECE_MAGIC, self._scan)
            if at < 0:
                self._scan = max(self._scan, len(self._buffer) - len(PIECE_MAGIC) + 1)
                break
            if len(self._buffer) - at < PIECE_HEADER.size:
                self._scan = at
                break
            if _valid_piece_header(self._buffer, at) is None:
                self._scan = at + 1
                continue
            self._close(at)
            self._open = True
            self._scan = PIECE_HEADER.size
        if not self._open and self._scan > 0:
            self._close(self._scan)

    def finish(self):
        self._close(len(self._buffer))

    def _close(self, end):
        """Ends what _buffer holds before end: a segment, or bytes of no request."""
        if end <= 0:
            return
        data = bytes(self._buffer[:end])
        if self._open:
            self.segments.append(self._judge(self._base, data))
        elif self.segments and self.segments[-1].key is None and \
                self.segments[-1].position + self.segments[-1].size == self._base:
            self.segments[-1].size += end
        else:
            self.segments.append(Segment(self.connection, self._base, end,
                                         problem="bytes of no request"))
        del self._buffer[:end]
        self._base += end
        self._scan = max(0, self._scan - end)
        self._open = False

    def _judge(self, position, data):
        fields = PIECE_HEADER.unpack(data[:PIECE_HEADER.size])
        _, client, piece, pieces, seq, length, padding, total, _, _ = fields
        segment = Segment(self.connection, position, len(data), (client, seq))
        request = self.requests.get((client, seq))
        if request is None:
            segment.problem = f"a header of request {client}/{seq}, which no client made"
            return segment
        if piece >= len(request.pieces) or pieces != len(request.pieces) or \
                request.pieces[piece] != (length, padding) or total != request.wire_size:
            segment.problem = f"a header that does not match request {client}/{seq}"
            return segment
        segment.wire_start = request.piece_offset(piece)
        expected = request.wire(piece, len(data) + 1)
        if len(data) > len(expected):
            segment.problem = (f"{len(data) - len(expected)} bytes after the end of request "
                               f"{client}/{seq}")
        elif data != expected[:len(data)]:
            differ = next(i for i in range(len(data)) if data[i] != expected[i])
            segment.problem = (f"request {client}/{seq} differs from what was sent at byte "
                               f"{segment.wire_start + differ} of {request.wire_size}")
        return segment


def parse_stream(connection, path, requests, chunk=4 << 20):
    parser = StreamParser(connection, requests)
    with open(path, "rb") as f:
        while True:
            data = f.read(chunk)
            if not data:
                break
            parser.feed(data)
    parser.finish()
    return parser.segments


def parse_receive(data):
    """The feeds in one received file: [(feed, offset in the feed, bytes, problem)]."""
    found = []
    at = 0
    while at < len(data):
        head = data[at:at + FEED_HEADER.size]
        if len(head) == FEED_HEADER.size and head[:8] == FEED_MAGIC:
            magic, feed, size, _, header_crc = FEED_HEADER.unpack(head)
            if zlib.crc32(head[:-4]) == header_crc:
                expected = feed_data(feed, size)
                following = data.find(FEED_MAGIC, at + 1)
                part = data[at:min(at + size, following if following > 0 else len(data))]
                problem = None if part == expected[:len(part)] else "bytes differ from the feed"
                found.append((feed, 0, len(part), problem))
                at += len(part)
                continue
        found.append((None, 0, len(data) - at, "bytes of no feed"))
        break
    return found


# ---- the record of a run -----------------------------------------------------------------

class Run:
    """What the chaos program saw, as plain data (saved as run.json next to the streams)."""

    def __init__(self):
        self.requests = {}        # (client, seq) -> Request
        self.connections = []     # dicts: index, opened, ended, first, status, file
        self.faults = []          # dicts: kind, begin, end, ends_connection, (detail)
        self.receives = []        # dicts: index, requested, size, opened/closed (event numbers), feeds
        self.receive_events = []  # ("open"|"close"|"begin"|"end", number) in inotify order
        self.samples = []         # dicts: t, rss_kb, fds, threads, label
        self.client_violations = []  # found by the clients while the run went on
        self.interrupts = []      # when each interrupt request was written
        self.receive_size = 0
        self.stream_dir = ""

    def save(self, path):
        data = dict(self.__dict__)
        data["requests"] = [r.to_json() for r in self.requests.values()]
        with open(path, "w") as f:
            json.dump(data, f)

    @classmethod
    def load(cls, path):
        run = cls()
        with open(path) as f:
            data = json.load(f)
        for name, value in data.items():
            setattr(run, name, value)
        run.requests = {}
        for item in data["requests"]:
            request = Request.from_json(item)
            run.requests[request.key] = request
        run.receive_events = [tuple(e) for e in run.receive_events]
        return run


# ---- the verdict -------------------------------------------------------------------------

RSS_GROWTH_LIMIT_KB = 1024
ENABLE_LIMIT = 2.0
FAULT_KINDS = ("udc-rebind", "cable-pull", "host-stall", "host-reset", "host-reopen", "module-reload")


class Report:
    def __init__(self):
        self.violations = []
        self.counts = {}

    def violation(self, text):
        self.violations.append(text)


def connection_windows(run):
    """For each connection, from the host's view: when a request must have been made for its
    bytes to be allowed there. Connection k ends by a fault F(k) that began at B(k) and whose
    action was over by C(k) (the sysfs write or the reset returned). A request made at m may
    reach connection k only if m >= B(k-1) (it was not made before the fault that ended the
    connection before began) and m < C(k) (connection k was not over yet). Between B and C of
    one fault both neighbours are allowed: neither side can see the instant the device's
    function was disabled."""
    connection_faults = sorted((f for f in run.faults if f["ends_connection"]), key=lambda f: f["begin"])
    windows = []
    previous_begin = float("-inf")
    for connection in run.connections:
        fault = next((f for f in connection_faults
                      if connection["opened"] <= f["begin"] <= connection["ended"]), None)
        if connection["status"] == "quit":
            begin = end = float("inf")
        elif fault is not None:
            begin, end = fault["begin"], max(fault["end"], fault["begin"])
        else:
            begin = end = connection["ended"]
        windows.append((previous_begin, end, fault, begin))
        previous_begin = begin
    return windows


def check(run, segments_by_connection):
    """Every violation of the run, and its counts. segments_by_connection: {index: [Segment]}.

    Violations:
    - a request answered success whose bytes are not all, contiguous and in order, in one
      connection allowed for it (see connection_windows);
    - any byte of a request in a connection not allowed for it (stale delivery);
    - a request's bytes more than once, or bytes that belong to no request or differ from it;
    - a request answered failed, or never answered, that left more than a prefix of its bytes
      (the whole of a request counts as more: its client was told it was not sent);
    - a request answered twice, or an answer on another client's connection (found by the
      clients as they read);
    - a received file holding bytes of more than one feed, a feed in two files, bytes of no
      feed; receives that overlap or start out of the order asked; a receive that ended short
      with no connection-ending fault during its life; a receive still waiting at the end;
    - the daemon not sending within ENABLE_LIMIT seconds of the first request made after the
      host opened a new connection (the host reads from its open on);
    - a request that failed where no fault explains it, with no interrupt left to explain it:
      an interrupt ends the one write blocked when it comes and nothing else (a failure is
      explained by a fault when it was answered after the fault began and made before the
      first byte of the next connection, when the daemon was sending again);
    - the daemon's resident memory (own_memory) grown by more than RSS_GROWTH_LIMIT_KB, or its
      descriptors or threads grown, between the sample after the first minute and the last one
      (both taken with the load paused, every request answered or dropped and no receive
      pending).
    """
    report = Report()
    for text in run.client_violations:
        report.violation(text)
    windows = connection_windows(run)
    index_of = {c["index"]: i for i, c in enumerate(run.connections)}

    def allowed(request, connection_index):
        lower, upper, _, _ = windows[index_of[connection_index]]
        return lower <= request.made < upper

    # Unexpected ends: a connection that ended with no fault of ours.
    for (_, _, fault, _), connection in zip(windows, run.connections):
        if fault is None and connection["status"] != "quit":
            report.violation(f"connection {connection['index']} ended ({connection['status']}) "
                             f"at {connection['ended']:.3f} without a fault")

    by_request = {}
    bytes_verified = 0
    for connection_index, segments in sorted(segments_by_connection.items()):
        for segment in segments:
            if segment.problem:
                report.violation(f"connection {connection_index} at byte {segment.position}: "
                                 f"{segment.problem} ({segment.size} bytes)")
                continue
            by_request.setdefault(segment.key, []).append(segment)

    outcome = {"ok": 0, "failed": 0, "dropped": 0}
    prefixes = 0
    for key, request in run.requests.items():
        state = request.status or "dropped"
        outcome[state] += 1
        segments = sorted(by_request.get(key, []), key=lambda s: (s.connection, s.position))
        name = f"request {key[0]}/{key[1]} ({request.kind}, {state}, made {request.made:.3f})"
        for segment in segments:
            if not allowed(request, segment.connection):
                report.violation(f"{name}: {segment.size} bytes reached connection "
                                 f"{segment.connection}, which it was not made for")
        # One chain: from the first byte on, each segment right after the one before.
        chained = 0
        broken = False
        for i, segment in enumerate(segments):
            previous = segments[i - 1] if i else None
            if segment.wire_start != chained or (previous is not None and (
                    previous.connection != segment.connection or
                    previous.position + previous.size != segment.position)):
                broken = True
                break
            chained += segment.size
        if broken:
            report.violation(f"{name}: its bytes are not one run from its start "
                             f"({len(segments)} pieces found in connections "
                             f"{sorted({s.connection for s in segments})})")
        elif state == "ok":
            if chained != request.wire_size:
                report.violation(f"{name}: answered success, {chained} of {request.wire_size} "
                                 f"bytes arrived")
            else:
                bytes_verified += chained
        else:
            if chained >= request.wire_size:
                report.violation(f"{name}: not sent by its answer, yet all {chained} bytes arrived")
            elif chained:
                prefixes += 1
                bytes_verified += chained
    report.counts.update(outcome)
    report.counts["requests"] = len(run.requests)
    report.counts["prefixes"] = prefixes
    report.counts["bytes_verified"] = bytes_verified

    check_enables(run, report)
    check_interrupts(run, report)
    check_receives(run, report)
    check_resources(run, report)
    kinds = {kind: 0 for kind in FAULT_KINDS}
    for fault in run.faults:
        kinds[fault["kind"]] = kinds.get(fault["kind"], 0) + 1
    report.counts["faults"] = kinds
    report.counts["connections"] = len(run.connections)
    report.counts["interrupts"] = len(run.interrupts)
    return report


def check_enables(run, report):
    made = sorted(r.made for r in run.requests.values())
    slowest = 0.0
    for connection in run.connections:
        opened = connection["opened"]
        first_made = made[bisect.bisect_left(made, opened)] if made and made[-1] >= opened else None
        if first_made is None or first_made > connection["ended"]:
            continue
        first_byte = connection.get("first")
        deadline = first_made + ENABLE_LIMIT
        if first_byte is not None:
            slowest = max(slowest, first_byte - first_made)
        if first_byte is None or first_byte > deadline:
            if first_byte is None and connection["ended"] < deadline:
                continue  # over before the limit: the fault that ended it came first
            seen = ("nothing" if first_byte is None else
                    f"the first byte {first_byte - first_made:.2f} s later")
            report.violation(f"connection {connection['index']}: request made at {first_made:.3f}, "
                             f"{seen} (limit {ENABLE_LIMIT:.0f} s)")
    report.counts["slowest_first_byte"] = slowest


def check_interrupts(run, report):
    windows = []
    for fault in run.faults:
        if not fault["ends_connection"]:
            continue
        later = [c for c in run.connections if c["opened"] > fault["begin"]]
        until = float("inf")
        if later:
            until = later[0]["first"] if later[0]["first"] is not None else later[0]["ended"]
        windows.append((fault["begin"], until))
    unexplained = sorted(r.answered for r in run.requests.values() if r.status == "failed" and
                         not any(r.answered >= begin and r.made <= until for begin, until in windows))
    # Each failure needs an interrupt of its own written before it was answered; taking the
    # earliest one still free for each failure in turn finds such a pairing if there is one.
    interrupts = sorted(run.interrupts)
    used = 0
    for answered in unexplained:
        if used < len(interrupts) and interrupts[used] <= answered:
            used += 1
        else:
            report.violation(f"a request failed at {answered:.3f} with no fault and no interrupt "
                             f"to explain it")
    report.counts["failed_by_interrupt"] = len(unexplained)


def check_receives(run, report):
    size = run.receive_size
    feeds_seen = {}
    complete = short = 0
    order = [e for e in run.receive_events]
    position = {}
    for number, (what, which) in enumerate(order):
        position[(what, which)] = number
    fault_marks = {}
    for number, (what, which) in enumerate(order):
        if what in ("begin", "end"):
            fault_marks.setdefault(which, {})[what] = number
    active = None
    next_expected = 0
    requested = sorted(r["index"] for r in run.receives)
    for what, which in order:
        if what == "open":
            if active is not None:
                report.violation(f"receive {which} started while receive {active} was still running")
            while next_expected < len(requested) and requested[next_expected] != which:
                next_expected += 1
            if next_expected >= len(requested):
                report.violation(f"receive {which} started out of the order asked")
            else:
                next_expected += 1
            active = which
        elif what == "close" and active == which:
            active = None
    for receive in run.receives:
        index = receive["index"]
        if receive.get("closed") is None:
            report.violation(f"receive {index} never ended")
            continue
        got = 0
        feeds = receive.get("feeds", [])
        real = [f for f in feeds if f[0] is not None]
        for feed, _, count, problem in feeds:
            if problem:
                report.violation(f"receive {index}: {count} bytes: {problem}")
            got += count
        if len({f[0] for f in real}) > 1:
            report.violation(f"receive {index} holds bytes of feeds {sorted({f[0] for f in real})}")
        for feed, _, _, _ in real:
            if feed in feeds_seen and feeds_seen[feed] != index:
                report.violation(f"feed {feed} is in receives {feeds_seen[feed]} and {index}")
            feeds_seen[feed] = index
        if got == size:
            complete += 1
            continue
        short += 1
        opened = position.get(("open", index))
        closed = position.get(("close", index))
        ended_by_fault = any(
            marks.get("begin", -1) < closed and marks.get("end", len(order)) > (opened or -1)
            for marks in fault_marks.values())
        if not ended_by_fault:
            report.violation(f"receive {index} ended with {got} of {size} bytes and no host "
                             f"went away meanwhile")
    report.counts["receives"] = len(run.receives)
    report.counts["receives_complete"] = complete
    report.counts["receives_short"] = short


def own_memory(sample):
    """Resident memory the daemon allocated or mapped from its clients: anonymous and shared.
    Its code's and libraries' pages are left out; they come and go with the page cache (an
    early run saw 2 MB of them reclaimed before the first sample and back by the last)."""
    if "anon_kb" in sample:
        return sample["anon_kb"] + sample["shmem_kb"]
    return sample["rss_kb"]


def check_resources(run, report):
    baseline = next((s for s in run.samples if s.get("label") == "baseline"), None)
    last = next((s for s in reversed(run.samples) if s.get("label") == "end"), None)
    if baseline is None or last is None:
        report.violation("no resource samples to compare")
        return
    report.counts["rss_kb"] = (own_memory(baseline), own_memory(last))
    report.counts["fds"] = (baseline["fds"], last["fds"])
    report.counts["threads"] = (baseline["threads"], last["threads"])
    if own_memory(last) - own_memory(baseline) > RSS_GROWTH_LIMIT_KB:
        report.violation(f"daemon RSS grew from {own_memory(baseline)} to {own_memory(last)} kB "
                         f"(anonymous and shared)")
    if last["fds"] > baseline["fds"]:
        report.violation(f"daemon descriptors grew from {baseline['fds']} to {last['fds']}")
    if last["threads"] > baseline["threads"]:
        report.violation(f"daemon threads grew from {baseline['threads']} to {last['threads']}")


def summary(report):
    c = report.counts
    faults = ", ".join(f"{kind} {count}" for kind, count in c.get("faults", {}).items())
    return (f"chaos: {c.get('requests', 0)} requests, {c.get('ok', 0)} successes, "
            f"{c.get('failed', 0)} failures, {c.get('dropped', 0)} drops; "
            f"{sum(c.get('faults', {}).values())} faults ({faults}); "
            f"{c.get('bytes_verified', 0)} bytes verified; "
            f"{len(report.violations)} violations")


def check_saved(directory):
    """Checks a run saved by the chaos program (run.json and the streams it names)."""
    run = Run.load(os.path.join(directory, "run.json"))
    segments = {}
    for connection in run.connections:
        segments[connection["index"]] = parse_stream(
            connection["index"], os.path.join(directory, connection["file"]), run.requests)
    return check(run, segments)


if __name__ == "__main__":
    result = check_saved(sys.argv[1])
    for line in result.violations:
        print("violation:", line)
    print(summary(result))
    sys.exit(1 if result.violations else 0)
