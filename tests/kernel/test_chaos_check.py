"""The chaos checker on made-up runs: a clean run passes, and each kind of fault it exists to
find is found. A checker that passes everything would let the chaos test pass anything."""

import unittest

import chaos_check as cc


def request(client, seq, pieces, made, status, answered=None):
    """status "ok" or "failed" (answered at made + 0.1 unless said), or None: never answered."""
    r = cc.Request(client, seq, "socket", pieces, made)
    r.status = status
    if status is not None:
        r.answered = answered if answered is not None else made + 0.1
    return r


class Scenario:
    """Two connections: the first ends by a cable pull that begins at 10.0 and is over by 10.2;
    the host opens the second at 12.0."""

    def __init__(self):
        self.run = cc.Run()
        self.run.receive_size = 100
        self.run.connections = [
            {"index": 1, "opened": 0.0, "ended": 10.5, "first": 1.2, "status": "gone", "file": ""},
            {"index": 2, "opened": 12.0, "ended": 30.0, "first": 12.5, "status": "quit", "file": ""},
        ]
        self.run.faults = [{"kind": "cable-pull", "begin": 10.0, "end": 10.2, "ends_connection": True}]
        self.run.samples = [{"label": "baseline", "rss_kb": 9000, "fds": 30, "threads": 7},
                            {"label": "end", "rss_kb": 9500, "fds": 30, "threads": 7}]
        self.streams = {1: bytearray(), 2: bytearray()}

    def add(self, r):
        self.run.requests[r.key] = r
        return r

    def send(self, connection, r, limit=None):
        self.streams[connection] += r.wire(0, r.wire_size if limit is None else limit)

    def receive(self, index, data):
        self.run.receives.append({"index": index, "feeds": cc.parse_receive(data), "closed": True})
        self.run.receive_events += [("open", index), ("close", index)]

    def check(self, chunk=997):
        segments = {}
        for index, data in self.streams.items():
            parser = cc.StreamParser(index, self.run.requests)
            for at in range(0, len(data), chunk):
                parser.feed(bytes(data[at:at + chunk]))
            parser.finish()
            segments[index] = parser.segments
        return cc.check(self.run, segments)


class CheckerTest(unittest.TestCase):
    def clean(self):
        s = Scenario()
        s.send(1, s.add(request(0, 0, [(100, 7), (2000, 0), (36, 300)], 1.0, "ok")))
        # In flight at the pull: a prefix reached the host, the request failed.
        s.send(1, s.add(request(1, 0, [(5000, 0), (700, 10)], 9.0, "failed", 10.1)), limit=3000)
        # Waiting in the queue at the pull: dropped, never answered, nothing sent.
        s.add(request(2, 0, [(400, 0)], 9.5, None))
        # Made while the pull was under way: either connection may carry it.
        s.send(2, s.add(request(3, 0, [(64, 0)], 10.1, "ok", 12.6)))
        s.send(2, s.add(request(4, 0, [(90, 3)], 12.1, "ok")))
        s.receive(0, cc.feed_data(0, 100))
        # Cut by the pull: its read failed with nothing.
        s.receive(1, b"")
        s.run.receive_events.insert(2, ("begin", 0))
        s.run.receive_events.insert(4, ("end", 0))
        return s

    def test_a_clean_run_passes_and_is_counted(self):
        report = self.clean().check()
        self.assertEqual(report.violations, [])
        c = report.counts
        self.assertEqual((c["requests"], c["ok"], c["failed"], c["dropped"], c["prefixes"]), (5, 3, 1, 1, 1))
        self.assertEqual(c["bytes_verified"], 107 + 2000 + 336 + 3000 + 64 + 93)
        self.assertEqual((c["receives_complete"], c["receives_short"]), (1, 1))
        # However the stream is cut into reads.
        for chunk in (1, 36, 4096):
            self.assertEqual(self.clean().check(chunk).violations, [])

    def test_lost_stale_repeated_and_corrupt_bytes_are_found(self):
        cases = {}
        s = self.clean()
        s.streams[2] = s.streams[2][:-5]
        cases["tail lost"] = (s, "answered success, 88 of 93 bytes arrived")
        s = self.clean()
        s.send(2, s.run.requests[(2, 0)])
        cases["stale"] = (s, "reached connection 2, which it was not made for")
        s = self.clean()
        s.send(2, s.run.requests[(4, 0)])
        cases["twice"] = (s, "not one run from its start")
        s = self.clean()
        r = s.add(request(5, 0, [(100, 0), (100, 0)], 13.0, "ok"))
        s.streams[2] += r.wire(0, 200)[100:] + r.wire(0, 100)
        cases["out of order"] = (s, "not one run from its start")
        s = self.clean()
        s.send(2, s.add(request(6, 0, [(300, 0)], 13.0, "failed")))
        cases["failed yet whole"] = (s, "not sent by its answer, yet all 300 bytes arrived")
        s = self.clean()
        s.streams[1][500] ^= 0xFF
        cases["flipped byte"] = (s, "differs from what was sent at byte 500")
        s = self.clean()
        s.streams[2][0:0] = b"stray"
        cases["stray bytes"] = (s, "bytes of no request")
        s = self.clean()
        s.run.connections[0]["status"] = "failed"
        s.run.faults = []
        cases["end without a fault"] = (s, "without a fault")
        for name, (scenario, expected) in cases.items():
            with self.subTest(name):
                violations = scenario.check().violations
                self.assertTrue(any(expected in v for v in violations), violations)

    def test_receives_timing_interrupts_and_resources(self):
        cases = {}
        s = self.clean()
        s.run.receives[1]["feeds"] = cc.parse_receive(cc.feed_data(1, 100)[:40] + cc.feed_data(2, 100)[:60])
        cases["two feeds in one file"] = (s, "holds bytes of feeds [1, 2]")
        s = self.clean()
        s.run.receives[1]["feeds"] = cc.parse_receive(cc.feed_data(0, 100))
        cases["one feed in two files"] = (s, "feed 0 is in receives 0 and 1")
        s = self.clean()
        s.run.receive_events = [("open", 0), ("open", 1), ("close", 0), ("close", 1)]
        cases["overlap"] = (s, "started while receive 0 was still running")
        s = self.clean()
        s.run.receive_events = [("open", 1), ("close", 1), ("open", 0), ("close", 0)]
        cases["order"] = (s, "receive 0 started out of the order asked")
        s = self.clean()
        s.run.receive_events = [e for e in s.run.receive_events if e[0] not in ("begin", "end")]
        cases["gave up by time"] = (s, "receive 1 ended with 0 of 100 bytes and no host went away")
        s = self.clean()
        s.run.connections[1]["first"] = 15.0
        cases["slow after enable"] = (s, "the first byte 2.90 s later")
        s = self.clean()
        s.add(request(7, 0, [(50, 0)], 20.0, "failed"))
        cases["failure nobody caused"] = (s, "with no fault and no interrupt")
        s = self.clean()
        s.run.samples[1]["rss_kb"] = 10100
        cases["memory"] = (s, "RSS grew from 9000 to 10100 kB")
        s = self.clean()
        s.run.samples = [dict(s.run.samples[0], anon_kb=3000, shmem_kb=0),
                         dict(s.run.samples[1], rss_kb=12000, anon_kb=3100, shmem_kb=1000)]
        cases["shared memory kept"] = (s, "RSS grew from 3000 to 4100 kB")
        s = self.clean()
        s.run.samples[1]["threads"] = 8
        cases["threads"] = (s, "threads grew from 7 to 8")
        for name, (scenario, expected) in cases.items():
            with self.subTest(name):
                violations = scenario.check().violations
                self.assertTrue(any(expected in v for v in violations), violations)
        # An interrupt written before the failure explains it, and only that one.
        s = self.clean()
        s.add(request(7, 0, [(50, 0)], 20.0, "failed", 20.5))
        s.run.interrupts = [20.2]
        self.assertEqual(s.check().violations, [])
        s.add(request(8, 0, [(50, 0)], 21.0, "failed", 21.5))
        self.assertEqual(len(s.check().violations), 1)
        # Pages of the daemon's code that the page cache gave back in between are not its own.
        s = self.clean()
        s.run.samples = [dict(s.run.samples[0], rss_kb=7000, anon_kb=3400, shmem_kb=0),
                         dict(s.run.samples[1], rss_kb=9300, anon_kb=3410, shmem_kb=0)]
        self.assertEqual(s.check().violations, [])


if __name__ == "__main__":
    unittest.main()
