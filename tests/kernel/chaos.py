"""The daemon under load and faults on a real kernel, with every byte accounted for.

Run inside the guest of scripts/kernel-test (as root, nothing else running), by the CTest test
kernel_chaos (2 minutes) and by bench/chaos-kernel (as long as asked):

    python3 tests/kernel/chaos.py [--minutes N] [--seed S]

The set-up is the kernel suite's (tests/kernel/suite.py): a system bus, dummy_hcd, the gadget of
deploy/gadget/usbd-gadget and the unmodified daemon. Then, all at once:

- load: 16 socket clients (memory and shared-memory entries, half of them with padding, four of
  them sending an interrupt now and then), 2 D-Bus senders (send_data, and send_file of several
  pieces of a file with padding) and receives (open_file, two waiting at any time, fed by the
  host over bulk OUT);
- faults, one at a time at seeded random intervals: the controller unbound and bound
  again, the cable pulled (soft_connect) and plugged back, the host stopping reading for a
  while, the host resetting the device or closing and opening it again, the controller's module
  unloaded and loaded again; a pull, an unbind or an unload comes in the middle of a host stall
  half of the time, when requests wait in the daemon's queue;
- the host (chaos_host, on the project's host library) reads bulk IN all the time and keeps
  each connection's stream in a file of its own.

At the end the checker (chaos_check.py) parses the streams back and fails the run on any
violation; the summary line gives the counts.

Sizes are moderate on purpose: dummy_hcd on 5.10 moves about 1 MB/s and TCG on a loaded
two-core machine is slower still, so the load stays well below what the slowest kernel moves
(about 0.3 MB/s asked for), a request takes a fraction of a second there, and the rule that
the daemon sends again within 2 s of a new connection measures the daemon, not a queue that a
slow bus could not drain. Nothing else here depends on speed: every wait is for a condition.
"""

import argparse
import ctypes
import fcntl
import os
import random
import select
import signal
import socket
import struct
import subprocess
import sys
import termios
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
import chaos_check as cc  # noqa: E402
import suite  # noqa: E402
from suite import GADGET, PATH, SERVICE, UDC_DIR, USBD, run, wait_for  # noqa: E402

sys.path.insert(0, os.path.join(suite.SOURCE, "python"))
import usbd as client  # noqa: E402

import dbus  # noqa: E402

HOST_PROGRAM = os.path.join(suite.BUILD, "tests", "kernel", "chaos_host")
HAL_LIBRARY = os.path.join(suite.BUILD, "platform", "hal", "libarvohal.so")
UDC_FILE = "/sys/kernel/config/usb_gadget/g1/UDC"
BUS_ADDRESS = "unix:path=/run/dbus/system_bus_socket"
WORK = "/tmp/chaos"
RECEIVE_DIR = os.path.join(WORK, "rx")
FILE_DIR = os.path.join(WORK, "files")

SOCKET_CLIENTS = 16
INTERRUPTING = (3, 7, 11, 15)
DBUS_SENDERS = (16, 17)
# dummy_hcd completes a bulk IN write of at most 64 bytes at once, as a controller does that
# counts a write done once its FIFO holds it, before any host has read it: a host that goes
# away then never gets those bytes, though the write succeeded, and nothing above the
# controller can tell. That is the controller's promise, not the daemon's, so every piece is
# larger: a request's writes are never that small.
SMALLEST = 65
# Not a multiple of any packet size, so each feed ends in a short packet.
RECEIVE_SIZE = 40_000
RECEIVES_WAITING = 2
# Between a client's requests: a pause after an answer, a longer one after a failure (while the
# link is down every send fails at once, and clients that retried at once would only burn the
# guest's CPU).
THINK = (0.05, 1.0)
BACKOFF = (0.3, 1.0)
# Between faults, and how long a stall or a pulled cable lasts.
FAULT_GAP = (2.0, 8.0)
STALL_MS = (500, 4000)
UNPLUGGED = (0.2, 2.5)
# One send_file in a hundred ends in megabytes of padding (zero pages for the daemon, but
# bytes on the bus), so that some requests take more than one call to the endpoint.
LARGE_SHARE = 0.01
LARGE_PADDING = (5 << 20, 9 << 20)
SAMPLE_EVERY = 5.0
# Limits for what must happen: far beyond the need on any kernel, so only a fault reaches them.
LIMIT = 120.0

now = time.monotonic


def log(*text):
    print(f"[{now():10.3f}]", *text, flush=True)


# ---- the daemon's side of the machine ------------------------------------------------------

class Hal:
    """Shared memory through the platform HAL, as a client process holds it for the daemon."""

    def __init__(self):
        self.lib = ctypes.CDLL(HAL_LIBRARY)
        device = ctypes.c_uint32()
        opened = self.lib.arvo_hal_initialize(None) == 0 and \
            self.lib.arvo_hal_device_open(b"/dev/ion", None, ctypes.byref(device)) in (0, -1004)
        if not opened:
            raise RuntimeError("cannot open the HAL")
        self.device = device

    def allocate(self, size, pieces):
        """Memory holding each (offset, data); returns (memory, share handle)."""
        memory, handle = ctypes.c_uint32(), ctypes.c_uint64()
        base = ctypes.POINTER(ctypes.c_uint8)()
        if self.lib.arvo_hal_mem_alloc(self.device, ctypes.byref(memory), size, 1024, 0, 27) != 0 or \
                self.lib.arvo_hal_mem_map(memory, ctypes.byref(base)) != 0:
            raise RuntimeError(f"cannot allocate {size} bytes of HAL memory")
        address = ctypes.addressof(base.contents)
        for offset, data in pieces:
            ctypes.memmove(address + offset, data, len(data))
        self.lib.arvo_hal_mem_share(memory, ctypes.byref(handle))
        return memory.value, handle.value

    def free(self, memory):
        self.lib.arvo_hal_mem_free(ctypes.c_uint32(memory))


class LinkChanges:
    """The daemon's link-type changes, as PropertiesChanged signals on the bus. A request that
    waits in the daemon's queue when the link type changes is dropped and never answered; the
    daemon drops first and signals after, so a request made after a signal was seen here cannot
    have been dropped by that change. Clients use this to stop waiting for requests that may
    have been dropped (counting other property changes too only makes them wait less)."""

    def __init__(self):
        self.generation = 0
        self.condition = threading.Condition()
        self.wakers = []
        self._lost = threading.Event()
        rule = (f"type='signal',interface='org.freedesktop.DBus.Properties',"
                f"member='PropertiesChanged',path='{PATH}'")
        self.process = subprocess.Popen(["stdbuf", "-oL", "dbus-monitor", "--system", rule],
                                        stdout=subprocess.PIPE, text=True)
        threading.Thread(target=self._read, daemon=True).start()
        # A monitor gives up its name once it monitors.
        wait_for(self._lost.is_set, what="dbus-monitor")

    def _read(self):
        for line in self.process.stdout:
            if line.rstrip().endswith("member=NameLost"):
                self._lost.set()
            elif line.startswith("signal") and "member=PropertiesChanged" in line:
                with self.condition:
                    self.generation += 1
                    self.condition.notify_all()
                for wake in self.wakers:
                    wake()

    def close(self):
        self.process.kill()
        self.process.wait()


class Daemon:
    def __init__(self, out):
        if os.path.lexists("/tmp/usbd-socket"):
            os.unlink("/tmp/usbd-socket")
        self.log_path = os.path.join(out, "usbd.log")
        env = dict(os.environ,
                   QT_LOGGING_RULES="usbd.debug=true;usbconn.debug=true;usbdsocket.debug=true",
                   # The monotonic clock in seconds, as every other part of the test reads it.
                   QT_MESSAGE_PATTERN="%{time boot} %{if-category}%{category}: %{endif}%{message}")
        self.log = open(self.log_path, "ab")
        suite.small_pages_only()
        self.process = subprocess.Popen([USBD], stdout=self.log, stderr=subprocess.STDOUT, env=env)
        suite.state["usbd"] = self.process
        wait_for(lambda: os.path.exists("/dev/usb-ffs/bulk/ep4"), what="the daemon's descriptors")
        wait_for(suite._bus_has_daemon, what="the daemon on the bus")
        wait_for(lambda: os.path.exists(client.DEFAULT_SOCKET_PATH), what="the daemon's socket")

    def sample(self, label="periodic"):
        pid = self.process.pid
        with open(f"/proc/{pid}/status") as f:
            status = dict(line.split(":", 1) for line in f)
        kb = {name: int(status[name].split()[0]) for name in ("VmRSS", "RssAnon", "RssFile", "RssShmem")}
        with open(f"/proc/{pid}/maps") as f:
            mappings = sum(1 for _ in f)
        return {"t": now(), "rss_kb": kb["VmRSS"], "anon_kb": kb["RssAnon"], "file_kb": kb["RssFile"],
                "shmem_kb": kb["RssShmem"], "mappings": mappings,
                "fds": len(os.listdir(f"/proc/{pid}/fd")), "threads": int(status["Threads"]),
                "label": label}

    def alive(self):
        return self.process.poll() is None

    def stop(self):
        self.process.kill()
        self.process.wait()
        self.log.close()


def write_sysfs(path, value):
    with open(path, "w") as f:
        f.write(value)


def load_controller(super_speed):
    run("modprobe", "dummy_hcd", f"is_super_speed={1 if super_speed else 0}")
    wait_for(lambda: os.path.isdir(UDC_DIR), what="the controller")


def bind():
    run(GADGET, "bind", "--timeout", "30")


# ---- the host ------------------------------------------------------------------------------

class HostSide:
    """chaos_host, and what it reports: connections, feeds, the times of its own faults."""

    def __init__(self, directory):
        self.directory = directory
        self.condition = threading.Condition()
        self.connections = []   # dicts as the checker takes them
        self.events = []        # (name, fields)
        self.feeds_done = 0
        self.feeds_abandoned = 0
        self.errors = []
        keep = os.path.dirname(directory)
        self.event_log = open(os.path.join(keep, "host-events.log"), "w")
        # CHAOS_LIBUSB_DEBUG=4: libusb's log of every transfer, for a run that lost bytes.
        self.process = subprocess.Popen(
            [HOST_PROGRAM, directory, str(RECEIVE_SIZE)], stdin=subprocess.PIPE,
            stdout=subprocess.PIPE, stderr=open(os.path.join(keep, "host-stderr.log"), "w"), text=True,
            env=dict(os.environ, LIBUSB_DEBUG=os.environ.get("CHAOS_LIBUSB_DEBUG", "0")))
        threading.Thread(target=self._read, daemon=True).start()
        self.wait(lambda: self.last("ready"), "the host program")

    def _read(self):
        for line in self.process.stdout:
            self.event_log.write(line)
            self.event_log.flush()
            name, _, rest = line.strip().partition(" ")
            # An error's text is the rest of its line; other events are key=value words.
            try:
                fields = {"what": rest[5:]} if name == "error" else dict(
                    item.split("=", 1) for item in rest.split())
            except ValueError:
                name, fields = "error", {"what": f"an event this program cannot read: {line!r}"}
            with self.condition:
                self.events.append((name, fields))
                if name == "open" and fields["session"] == "new":
                    self.connections.append({"index": int(fields["conn"]), "opened": float(fields["t"]),
                                             "ended": None, "first": None, "status": None,
                                             "file": f"conn-{int(fields['conn']):04d}.bin",
                                             "speed": fields["speed"]})
                elif name == "first":
                    self.connections[-1]["first"] = float(fields["t"])
                elif name == "end":
                    self.connections[-1]["ended"] = float(fields["t"])
                    self.connections[-1]["status"] = fields["status"]
                elif name == "feed-done":
                    self.feeds_done += 1
                elif name == "feed-abandoned":
                    self.feeds_abandoned += 1
                elif name == "error":
                    self.errors.append(fields.get("what", ""))
                self.condition.notify_all()

    def last(self, name, after=0):
        for index in range(len(self.events) - 1, after - 1, -1):
            if self.events[index][0] == name:
                return self.events[index][1]
        return None

    def mark(self):
        with self.condition:
            return len(self.events)

    def wait(self, predicate, what, timeout=LIMIT):
        """Until predicate() holds, looked at on every event and a few times a second (it may
        depend on more than this program's events)."""
        deadline = now() + timeout
        with self.condition:
            while True:
                value = predicate()
                if value:
                    return value
                if now() > deadline:
                    raise AssertionError(f"timed out after {timeout:.0f} s waiting for {what}")
                self.condition.wait(0.2)

    def command(self, text):
        self.process.stdin.write(text + "\n")
        self.process.stdin.flush()

    def connected(self):
        return bool(self.connections) and self.connections[-1]["ended"] is None

    def quit(self):
        try:
            self.command("quit")
        except BrokenPipeError:
            pass
        self.process.wait(timeout=LIMIT)


# ---- load ------------------------------------------------------------------------------------

class Load:
    """What all clients share: the run's requests, pausing, and the link-change generation."""

    def __init__(self, run_record, links, seed):
        self.run = run_record
        self.links = links
        self.seed = seed
        self.lock = threading.Lock()
        self.paused = threading.Event()
        self.stopping = threading.Event()

    def record(self, request):
        with self.lock:
            self.run.requests[request.key] = request

    def violation(self, text):
        with self.lock:
            self.run.client_violations.append(text)
        log("violation:", text)


def socket_outq(sock):
    # Bytes written but not yet read by the daemon. The daemon takes each read as one request,
    # so a client writes again only once the daemon has read what it wrote before.
    return struct.unpack("i", fcntl.ioctl(sock.fileno(), termios.TIOCOUTQ, b"\0\0\0\0"))[0]


class SocketClient:
    def __init__(self, index, load, hal):
        self.index = index
        self.load = load
        self.hal = hal
        self.rng = random.Random(f"{load.seed}:socket:{index}")
        self.kinds = ("memory", "handle", "mixed")[min(index // 4, 2)]
        self.padding = index % 2 == 0
        self.interrupting = index in INTERRUPTING
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.sock.connect(client.DEFAULT_SOCKET_PATH)
        self.buffer = b""
        self.seq = 0
        self.outstanding = {}   # seq -> (request, generation made in, HAL memory or None)
        self.next_request = now() + self.rng.uniform(*THINK)
        self.next_interrupt = now() + self.rng.uniform(1, 8)

    def waiting(self):
        """Whether a request made since the last link change is still unanswered."""
        generation = self.load.links.generation
        return any(made_in >= generation for _, made_in, _ in list(self.outstanding.values()))

    def plan(self):
        pieces = []
        room = client.MAX_REQUEST_SIZE - 8 - 4
        for _ in range(self.rng.randint(1, 3 if self.kinds != "mixed" else 4)):
            kind = self.kinds if self.kinds != "mixed" else self.rng.choice(("memory", "handle"))
            padding = self.rng.randint(1, 8192) if self.padding and self.rng.random() < 0.5 else 0
            if kind == "memory":
                length = self.rng.randint(SMALLEST, 1500)
                if length + 28 * (len(pieces) + 2) > room:
                    break
                room -= length + 28
            else:
                length = self.rng.randint(cc.PIECE_HEADER.size + 220, 16 * 1024)
                room -= 28
            pieces.append((kind, length, padding))
        return pieces

    def send_request(self):
        plan = self.plan()
        seq = self.seq
        self.seq += 1
        request = cc.Request(self.index, seq, "socket", [(length, padding) for _, length, padding in plan])
        data = [request.piece_data(i) for i in range(len(plan))]
        # Handle entries lie in one HAL allocation for the request, with gaps between them.
        places, size = {}, 0
        for i, (kind, _, _) in enumerate(plan):
            if kind == "handle":
                size += self.rng.randint(0, 512)
                places[i] = size
                size += len(data[i])
        memory = handle = None
        if places:
            memory, handle = self.hal.allocate(size, [(at, data[i]) for i, at in places.items()])
        message = client.SendRequest((self.index << 24) | seq)
        for i, (kind, length, padding) in enumerate(plan):
            if kind == "handle":
                message.add_handle(handle, places[i], length, element_padding=padding)
            else:
                message.add_memory(data[i], element_padding=padding)
        encoded = message.encode()
        generation = self.load.links.generation
        request.made = now()
        self.load.record(request)
        self.outstanding[seq] = (request, generation, memory)
        written = self.sock.send(encoded)
        if written != len(encoded):
            raise AssertionError(f"client {self.index}: a request went out in pieces")

    def interrupt(self):
        with self.load.lock:
            self.load.run.interrupts.append(now())
        self.sock.send(client.encode_interrupt())

    def read(self):
        data = self.sock.recv(4096)
        if not data:
            raise AssertionError(f"client {self.index}: the daemon closed the connection")
        self.buffer += data
        while len(self.buffer) >= client.RESPONSE_SIZE:
            response = client.decode_response(self.buffer)
            self.buffer = self.buffer[client.RESPONSE_SIZE:]
            self.answer(response)

    def answer(self, response):
        answered = now()
        owner, seq = response.request_id >> 24, response.request_id & 0xFFFFFF
        if owner != self.index:
            self.load.violation(f"client {self.index} got the answer to request {owner}/{seq}")
            return
        entry = self.outstanding.pop(seq, None)
        request = self.load.run.requests.get((self.index, seq))
        if entry is None:
            if request is None:
                state = "which it never made"
            elif request.status:
                state = "answered before"
            else:
                state = "after the answer to a later one"
            self.load.violation(f"client {self.index}: an answer to its request {seq}, {state}")
            return
        request.answered = answered
        request.status = "ok" if response.status == 0 else "failed"
        if entry[2] is not None:
            self.hal.free(entry[2])
        # Answers on one connection come in the order of its requests: one still waiting
        # from before this one was dropped, and will never be answered.
        for earlier in [s for s in self.outstanding if s < seq]:
            _, _, memory = self.outstanding.pop(earlier)
            if memory is not None:
                self.hal.free(memory)
        pause = THINK if request.status == "ok" else BACKOFF
        self.next_request = answered + self.rng.uniform(*pause)

    def step(self):
        """Does what is due; returns when to look again."""
        t = now()
        if socket_outq(self.sock):
            return t + 0.005
        paused = self.load.paused.is_set()
        if self.interrupting and not paused and t >= self.next_interrupt:
            self.interrupt()
            self.next_interrupt = t + self.rng.uniform(1, 8)
            return t + 0.005
        waiting = self.waiting()
        if not paused and not waiting and t >= self.next_request and len(self.outstanding) < 64:
            self.send_request()
            return t + 0.005
        due = [t + 0.5]
        if self.interrupting and not paused:
            due.append(self.next_interrupt)
        if not paused and not waiting:
            due.append(self.next_request)
        return min(due)


class SocketLoad(threading.Thread):
    """The 16 socket clients, on one thread: one select() over their connections."""

    def __init__(self, load):
        super().__init__(daemon=True)
        self.load = load
        hal = Hal()
        self.clients = [SocketClient(i, load, hal) for i in range(SOCKET_CLIENTS)]
        self.wake_read, self.wake_write = os.pipe()
        os.set_blocking(self.wake_write, False)
        load.links.wakers.append(self.wake)
        self.error = None

    def wake(self):
        try:
            os.write(self.wake_write, b"x")
        except BlockingIOError:
            pass

    def live(self):
        return sum(c.waiting() for c in self.clients)

    def run(self):
        try:
            by_fd = {c.sock.fileno(): c for c in self.clients}
            while not self.load.stopping.is_set():
                next_look = min(c.step() for c in self.clients)
                timeout = max(0.0, min(next_look - now(), 0.5))
                ready, _, _ = select.select(list(by_fd) + [self.wake_read], [], [], timeout)
                for fd in ready:
                    if fd == self.wake_read:
                        os.read(self.wake_read, 4096)
                    else:
                        by_fd[fd].read()
        except Exception as e:  # reported by the main thread
            self.error = e
            raise


class DbusSender(threading.Thread):
    """send_data and send_file. A call blocks until the daemon answers; one that may have been
    dropped (made before a link change) is left to its own thread, which waits for an answer
    that never comes, and the sender goes on. Each call has a bus connection to itself while it
    waits: libdbus lets one blocked call hold a connection's reading for every other call on it,
    so a dropped call would stop all of them."""

    def __init__(self, index, load):
        super().__init__(daemon=True)
        self.index = index
        self.load = load
        self.rng = random.Random(f"{load.seed}:dbus:{index}")
        self.connections = []   # connections no call is waiting on
        self.condition = threading.Condition()
        self.outstanding = {}   # seq -> (request, generation, file or None)
        load.links.wakers.append(self.wake)
        self.seq = 0
        self.next_request = now() + self.rng.uniform(*THINK)

    def wake(self):
        with self.condition:
            self.condition.notify_all()

    def waiting(self):
        generation = self.load.links.generation
        with self.condition:
            return any(g >= generation for _, g, _ in self.outstanding.values())

    def run(self):
        while not self.load.stopping.is_set():
            with self.condition:
                t = now()
                if self.load.paused.is_set() or self.waiting() or t < self.next_request:
                    self.condition.wait(max(0.01, min(0.5, self.next_request - t)))
                    continue
            self.start_call()

    def start_call(self):
        seq = self.seq
        self.seq += 1
        if self.rng.random() < 0.4:
            length = self.rng.randint(SMALLEST, 255)
            request = cc.Request(self.index, seq, "send_data", [(length, 0)])
            args = (dbus.ByteArray(request.piece_data(0)), dbus.Byte(length))
            method, path = "send_data", None
        else:
            pieces = [(self.rng.randint(cc.PIECE_HEADER.size + 220, 16 * 1024),
                       self.rng.randint(1, 8192) if self.rng.random() < 0.6 else 0)
                      for _ in range(self.rng.randint(2, 6))]
            if self.rng.random() < LARGE_SHARE:
                # More than the largest call dummy_hcd takes: the daemon sends it in several,
                # and a fault or an interrupt between two of them leaves a prefix.
                pieces[-1] = (pieces[-1][0], self.rng.randint(*LARGE_PADDING))
                # Nor may its last call be that small, whatever power of two the calls are.
                if sum(length + padding for length, padding in pieces) % 16384 <= SMALLEST:
                    pieces[-1] = (pieces[-1][0], pieces[-1][1] + 2 * SMALLEST)
            request = cc.Request(self.index, seq, "send_file", pieces)
            path = os.path.join(FILE_DIR, f"{self.index}-{seq}.bin")
            maps = []
            with open(path, "wb") as f:
                # A gap before each piece, so that offsets are not where the pieces would be
                # if the file were sent whole.
                for i, (length, padding) in enumerate(pieces):
                    f.write(b"\xee" * self.rng.randint(1, 700))
                    maps.append(dbus.Dictionary({
                        "path": dbus.String(path), "offset": dbus.Int64(f.tell()),
                        "size": dbus.Int32(length), "element_alignment": dbus.Int32(0),
                        "element_padding": dbus.Int32(padding), "session_id": dbus.UInt16(seq)},
                        signature="sv"))
                    f.write(request.piece_data(i))
            args = (dbus.Array(maps, signature="a{sv}"),)
            method = "send_file"
        with self.condition:
            self.outstanding[seq] = (request, self.load.links.generation, path)
        self.load.record(request)
        threading.Thread(target=self.call, args=(request, method, args), daemon=True).start()
        # Wait until the call has been made, so that this sender's calls reach the bus in order.
        with self.condition:
            self.condition.wait_for(lambda: request.made is not None)

    def call(self, request, method, args):
        with self.condition:
            bus = self.connections.pop() if self.connections else None
        if bus is None:
            bus = dbus.bus.BusConnection(BUS_ADDRESS)
        target = bus.get_object(SERVICE, PATH, introspect=False)
        with self.condition:
            request.made = now()
            self.condition.notify_all()
        try:
            getattr(target, method)(*args, dbus_interface=SERVICE, timeout=86400)
            status = "ok"
        except dbus.DBusException as e:
            if e.get_dbus_name() != "org.freedesktop.DBus.Error.Failed":
                return  # the bus went away at the end of the run
            status = "failed"
        answered = now()
        # Each call waits on a connection of its own, so answers are seen here in no particular
        # order: unlike a socket client, a sender cannot tell from a later answer that an
        # earlier request was dropped. The files of those go with the run's directory.
        with self.condition:
            self.connections.append(bus)
            _, _, path = self.outstanding.pop(request.seq)
            request.answered, request.status = answered, status
            self.next_request = answered + self.rng.uniform(*(THINK if status == "ok" else BACKOFF))
            self.condition.notify_all()
        if path:
            os.unlink(path)


class Inotify:
    IN_OPEN, IN_CLOSE_WRITE = 0x20, 0x08

    def __init__(self, directory):
        self.libc = ctypes.CDLL(None, use_errno=True)
        self.fd = self.libc.inotify_init1(os.O_CLOEXEC)
        if self.fd < 0 or self.libc.inotify_add_watch(
                self.fd, directory.encode(), self.IN_OPEN | self.IN_CLOSE_WRITE) < 0:
            raise OSError(ctypes.get_errno(), "inotify")

    def read(self, timeout):
        if not select.select([self.fd], [], [], timeout)[0]:
            return []
        data = os.read(self.fd, 65536)
        events, at = [], 0
        while at < len(data):
            _, mask, _, size = struct.unpack_from("iIII", data, at)
            name = data[at + 16:at + 16 + size].rstrip(b"\0").decode()
            events.append((mask, name))
            at += 16 + size
        return events


class Receives(threading.Thread):
    """open_file requests, two waiting at any time, and what became of each: the daemon's
    opening and closing of the files, seen through inotify in the order they happened, with
    the fault injector's marks in the same order (files it writes there around each fault)."""

    def __init__(self, load, host):
        super().__init__(daemon=True)
        self.load = load
        self.host = host
        self.inotify = Inotify(RECEIVE_DIR)
        self.bus = dbus.bus.BusConnection(BUS_ADDRESS)
        self.obj = self.bus.get_object(SERVICE, PATH, introspect=False)
        self.lock = threading.Lock()
        self.receives = {}
        self.events = load.run.receive_events
        self.pending = 0
        self.next_index = 0
        self.demand_sent = (None, 0.0)
        self.marks = 0

    def mark(self, what):
        """A point in the receives' order: ("begin"|"end", fault number)."""
        name = f"mark-{what}-{self.marks if what == 'begin' else self.marks - 1}"
        if what == "begin":
            self.marks += 1
        with open(os.path.join(RECEIVE_DIR, name), "w"):
            pass

    def request(self):
        index = self.next_index
        self.next_index += 1
        path = os.path.join(RECEIVE_DIR, f"rx-{index:06d}.bin")
        with self.lock:
            self.receives[index] = {"index": index, "requested": now(), "size": RECEIVE_SIZE,
                                    "opened": None, "closed": None, "feeds": []}
            self.pending += 1
        self.obj.open_file(dbus.String(path), dbus.Int32(RECEIVE_SIZE), dbus.UInt32(0),
                           dbus_interface=SERVICE, timeout=LIMIT)

    def demand(self):
        # Said again every second: the host may have fed on an older count.
        value, when = self.demand_sent
        if value != self.pending or (self.pending and now() - when > 1.0):
            self.host.command(f"demand {self.pending}")
            self.demand_sent = (self.pending, now())

    def run(self):
        while not self.load.stopping.is_set():
            if not self.load.paused.is_set():
                while self.pending < RECEIVES_WAITING:
                    self.request()
            self.demand()
            for mask, name in self.inotify.read(0.2):
                self.event(mask, name)

    def event(self, mask, name):
        if name.startswith("mark-") and mask & Inotify.IN_CLOSE_WRITE:
            _, what, number = name.split("-")
            self.events.append((what, int(number)))
            os.unlink(os.path.join(RECEIVE_DIR, name))
            return
        if not name.startswith("rx-"):
            return
        index = int(name[3:9])
        receive = self.receives.get(index)
        if receive is None:
            return
        if mask & Inotify.IN_OPEN and receive["opened"] is None:
            receive["opened"] = now()
            self.events.append(("open", index))
        elif mask & Inotify.IN_CLOSE_WRITE and receive["closed"] is None:
            receive["closed"] = now()
            self.events.append(("close", index))
            path = os.path.join(RECEIVE_DIR, name)
            with open(path, "rb") as f:
                receive["feeds"] = cc.parse_receive(f.read())
            os.unlink(path)
            with self.lock:
                self.pending -= 1

    def quiet(self):
        with self.lock:
            return self.pending == 0


# ---- faults ----------------------------------------------------------------------------------

class Faults(threading.Thread):
    def __init__(self, load, host, receives, seed):
        super().__init__(daemon=True)
        self.load = load
        self.host = host
        self.receives = receives
        self.rng = random.Random(f"{seed}:faults")
        self.idle = threading.Event()
        self.idle.set()
        self.error = None
        self.round = []

    def next_kind(self):
        # Rounds of every kind in a random order, so that a short run sees each of them.
        if not self.round:
            self.round = list(cc.FAULT_KINDS)
            self.rng.shuffle(self.round)
        return self.round.pop()

    def run(self):
        try:
            while not self.load.stopping.is_set():
                gap = self.rng.uniform(*FAULT_GAP)
                if self.load.stopping.wait(gap):
                    break
                while self.load.paused.is_set() and not self.load.stopping.is_set():
                    time.sleep(0.05)
                if self.load.stopping.is_set():
                    break
                self.idle.clear()
                try:
                    self.inject(self.next_kind())
                finally:
                    self.idle.set()
        except Exception as e:
            self.error = e
            self.idle.set()
            raise

    def record(self, kind, begin, end, ends, detail=""):
        with self.load.lock:
            self.load.run.faults.append({"kind": kind, "begin": begin, "end": end,
                                         "ends_connection": ends, "detail": detail})
        log(f"fault {kind} {detail}".rstrip(), f"({end - begin:.3f} s)")

    def stall_first(self):
        """Half of the time a fault that ends the connection comes while the host has stopped
        reading: the daemon's write blocks and requests queue up behind it."""
        if self.rng.random() < 0.5:
            return ""
        mark = self.host.mark()
        self.host.command("stop 4000")
        self.host.wait(lambda: self.host.last("stop-begin", mark), "the host to stop reading")
        time.sleep(self.rng.uniform(0.2, 1.5))
        return "during a stall"

    def inject(self, kind):
        connection = self.host.connections[-1]["index"]
        mark = self.host.mark()
        if kind == "host-stall":
            begin = now()
            self.host.command(f"stop {self.rng.randint(*STALL_MS)}")
            self.host.wait(lambda: self.host.last("stop-end", mark), "the host to read again")
            self.record(kind, begin, now(), False)
            return
        if kind == "host-reopen":
            begin = now()
            self.host.command("reopen")
            self.host.wait(lambda: self.host.last("reopen-end", mark), "the host to open again")
            self.record(kind, begin, now(), False)
            return
        if kind == "host-reset":
            self.receives.mark("begin")
            self.host.command("reset")
            done = self.host.wait(lambda: self.host.last("reset-end", mark), "the reset")
            self.receives.mark("end")
            started = self.host.last("reset-begin", mark)
            self.record(kind, float(started["t"]), float(done["t"]), True, f"rc {done['rc']}")
        else:
            detail = self.stall_first()
            self.receives.mark("begin")
            begin = now()
            if kind == "udc-rebind":
                write_sysfs(UDC_FILE, "\n")
            elif kind == "cable-pull":
                write_sysfs(os.path.join(UDC_DIR, "soft_connect"), "disconnect")
            else:
                run("rmmod", "dummy_hcd")
            end = now()
            self.receives.mark("end")
            self.record(kind, begin, end, True, detail)
            time.sleep(self.rng.uniform(*UNPLUGGED))
            super_speed = self.rng.random() < 0.5
            if kind == "cable-pull":
                # dummy_hcd's host side does not enumerate a device again after a soft
                # disconnect; a real cable would, so the controller is reloaded instead.
                write_sysfs(UDC_FILE, "\n")
                run("rmmod", "dummy_hcd")
            if kind != "udc-rebind":
                load_controller(super_speed)
            bind()
        # The device is back when the host has opened it anew; then the first byte must come.
        self.host.wait(lambda: self.host.connections[-1]["index"] > connection and
                       self.host.connected(), "the host to open the device again")
        # A pause for the resource sample holds the load back; the first byte then follows it.
        fresh = self.host.connections[-1]
        self.host.wait(lambda: fresh["first"] is not None or fresh["ended"] is not None or
                       self.load.paused.is_set(), "the first byte on the new connection")


# ---- the run ---------------------------------------------------------------------------------

def read_text(path):
    try:
        with open(path) as f:
            return f.read().strip()
    except OSError as e:
        return f"({e.strerror})"


def diagnose(daemon, host, socket_load, senders, receives):
    """What every party was doing, for a run that could not go on."""
    print("-- state when the run broke off")
    for name, pid in (("usbd", daemon.process.pid), ("chaos_host", host.process.pid)):
        for task in sorted(os.listdir(f"/proc/{pid}/task"), key=int) if os.path.isdir(f"/proc/{pid}") else []:
            base = f"/proc/{pid}/task/{task}"
            print(f"{name} thread {task} {read_text(base + '/comm')}: syscall "
                  f"{read_text(base + '/syscall').split(' ')[:2]} in {read_text(base + '/wchan')}")
    print(f"controller: {read_text(UDC_DIR + '/state')}, {read_text(UDC_DIR + '/current_speed')}; "
          f"gadget UDC {read_text(UDC_FILE)!r}")
    print(f"link changes seen: {socket_load.load.links.generation}; socket clients waiting: "
          f"{[(c.index, len(c.outstanding)) for c in socket_load.clients if c.waiting()]}; "
          f"D-Bus senders waiting: {[s.index for s in senders if s.waiting()]}; "
          f"receives waiting: {receives.pending}")
    for name, fields in host.events[-15:]:
        print("host:", name, fields)
    subprocess.run("dmesg | tail -n 40", shell=True)
    print("--")


def quiesce(label, load, socket_load, senders, receives, faults, daemon, host):
    """Pauses the load and the faults and waits until nothing is under way, then samples the
    daemon: every request made since the last link change answered, no receive waiting."""
    load.paused.set()
    wait_for(faults.idle.is_set, LIMIT, "the fault in progress to end")
    if faults.error:
        raise AssertionError(f"fault injection: {faults.error}")
    wait_for(host.connected, LIMIT, "the host to be connected")
    wait_for(lambda: socket_load.live() == 0 and not any(s.waiting() for s in senders), LIMIT,
             "every request made since the last link change to be answered")
    wait_for(receives.quiet, LIMIT, "every receive to end")
    # Threads and descriptors settle once the last receive's thread has gone.
    previous = [daemon.sample(label)]

    def settled():
        time.sleep(0.5)
        sample = daemon.sample(label)
        keys = ("rss_kb", "mappings", "fds", "threads")
        same = all(sample[k] == previous[0][k] for k in keys)
        previous[0] = sample
        return same
    wait_for(settled, 60, "the daemon's memory, descriptors and threads to settle")
    p = previous[0]
    log(f"{label}: RSS {p['rss_kb']} kB (anonymous {p['anon_kb']}, files {p['file_kb']}, "
        f"shared {p['shmem_kb']}), {p['mappings']} mappings, {p['fds']} descriptors, "
        f"{p['threads']} threads")
    return previous[0]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--minutes", type=float, default=2.0)
    parser.add_argument("--seed", type=int, default=None)
    args = parser.parse_args()
    seed = args.seed if args.seed is not None else random.SystemRandom().randrange(1 << 32)
    duration = args.minutes * 60
    log(f"chaos: seed {seed}, {args.minutes:g} minutes, kernel {os.uname().release}")

    # Kept by scripts/kernel-test in build/kernel/ARCH-SERIES/last/keep/chaos; the streams only
    # when the run fails.
    out = os.path.join(suite.OUT, "keep", "chaos")
    streams = os.path.join(out, "streams")
    os.makedirs(streams, exist_ok=True)
    for directory in (RECEIVE_DIR, FILE_DIR):
        os.makedirs(directory, exist_ok=True)
    record = cc.Run()
    record.receive_size = RECEIVE_SIZE
    record.stream_dir = streams

    with open("/tmp/bus.conf", "w") as f:
        f.write(suite.BUS_CONFIG)
    bus_pid = int(run("dbus-daemon", "--config-file=/tmp/bus.conf", "--fork", "--print-pid").stdout)
    links = LinkChanges()
    rng = random.Random(f"{seed}:setup")
    load_controller(rng.random() < 0.5)
    run(GADGET, "--modprobe", "--serial", "KT0001", "setup")
    daemon = Daemon(suite.OUT)
    host = HostSide(streams)
    bind()
    host.wait(host.connected, "the first connection")

    load = Load(record, links, seed)
    socket_load = SocketLoad(load)
    senders = [DbusSender(i, load) for i in DBUS_SENDERS]
    receives = Receives(load, host)
    faults = Faults(load, host, receives, seed)
    samples = record.samples
    threads = [socket_load, *senders, receives, faults]
    for thread in threads:
        thread.start()
    started = now()
    baseline_at = started + min(60.0, duration / 2)
    failure = None
    try:
        def watch(until):
            while now() < until:
                if not daemon.alive():
                    raise AssertionError(f"the daemon exited ({daemon.process.returncode})")
                for thread in (socket_load, faults):
                    if thread.error:
                        raise AssertionError(f"{type(thread).__name__}: {thread.error!r}")
                samples.append(daemon.sample())
                time.sleep(min(SAMPLE_EVERY, max(0.0, until - now())))

        watch(baseline_at)
        samples.append(quiesce("baseline", load, socket_load, senders, receives, faults, daemon, host))
        load.paused.clear()
        watch(started + duration)
        samples.append(quiesce("end", load, socket_load, senders, receives, faults, daemon, host))
    except AssertionError as e:
        failure = str(e)
        log("run broken off:", failure)
        diagnose(daemon, host, socket_load, senders, receives)
    load.stopping.set()
    for thread in threads:
        thread.join(timeout=LIMIT)
    host.quit()
    daemon_alive = daemon.alive()
    daemon.stop()
    links.close()
    run(GADGET, "stop", check=False)
    os.kill(bus_pid, signal.SIGTERM)

    record.faults.sort(key=lambda f: f["begin"])
    record.connections = host.connections
    record.receives = [receives.receives[i] for i in sorted(receives.receives)]
    record.save(os.path.join(out, "run.json"))
    log(f"checking {sum(os.path.getsize(os.path.join(streams, c['file'])) for c in host.connections)} "
        f"bytes in {len(host.connections)} connections")
    segments = {c["index"]: cc.parse_stream(c["index"], os.path.join(streams, c["file"]), record.requests)
                for c in host.connections}
    report = cc.check(record, segments)
    if failure:
        report.violation(f"the run could not go on: {failure}")
    if not daemon_alive:
        report.violation("the daemon died")
    for line in report.violations[:200]:
        print("violation:", line)
    if len(report.violations) > 200:
        print(f"... and {len(report.violations) - 200} more")
    c = report.counts
    print(f"chaos: seed {seed}, kernel {os.uname().release}, {(now() - started) / 60:.1f} minutes, "
          f"{c['connections']} connections; {c['interrupts']} interrupts, which failed "
          f"{c['failed_by_interrupt']} requests; {c['prefixes']} prefixes of failed requests; "
          f"first byte on a new connection at most {c['slowest_first_byte']:.2f} s after a request; "
          f"receives {c['receives_complete']} whole and {c['receives_short']} cut of {c['receives']} "
          f"({host.feeds_done} feeds taken, {host.feeds_abandoned} abandoned); daemon's own memory "
          f"{c.get('rss_kb')} kB, descriptors {c.get('fds')}, threads {c.get('threads')}")
    print(cc.summary(report), flush=True)
    if report.violations:
        print(f"the daemon's log (times on the same clock): {daemon.log_path}")
        subprocess.run(["tail", "-n", "60", daemon.log_path])
    subprocess.run(["rm", "-rf", WORK, "/tmp/bus.conf"])
    if not report.violations:
        subprocess.run(["rm", "-rf", streams, os.path.join(out, "run.json")])
    return 1 if report.violations else 0


if __name__ == "__main__":
    sys.exit(main())
