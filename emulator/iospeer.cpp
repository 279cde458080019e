#include "iospeer.h"

#include "control.h"
#include "log.h"

#include <iosconn_sim.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>

namespace usbdemu {

namespace {

constexpr size_t kMaxConnections = 8;
// A path longer than this is shortened in the log; the record itself is not.
constexpr size_t kMaxLoggedPath = 256;
// ios-log answers in one control message; older entries are left out to fit.
constexpr size_t kMaxLogOutput = kMaxControlMessage - 8 * 1024;
constexpr auto kHangUpCheck = std::chrono::milliseconds(50);
constexpr size_t kDiscardChunk = 1 << 20;

uint32_t get32(const uint8_t *p)
{
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
uint16_t get16(const uint8_t *p)
{
    return uint16_t(p[0] | p[1] << 8);
}

bool readAll(int fd, void *data, size_t size)
{
    uint8_t *p = static_cast<uint8_t *>(data);
    while (size > 0) {
        const ssize_t n = read(fd, p, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        p += n;
        size -= size_t(n);
    }
    return true;
}

bool discard(int fd, uint64_t size)
{
    std::vector<uint8_t> sink(size_t(std::min<uint64_t>(size, kDiscardChunk)));
    while (size > 0) {
        const size_t part = size_t(std::min<uint64_t>(size, sink.size()));
        if (!readAll(fd, sink.data(), part))
            return false;
        size -= part;
    }
    return true;
}

// The library closes its connection when its caller is interrupted while waiting for an
// answer; the piece it was sending must then not count as accepted.
bool hungUp(int fd)
{
    pollfd p{fd, POLLRDHUP, 0};
    return poll(&p, 1, 0) > 0 && (p.revents & (POLLRDHUP | POLLHUP | POLLERR));
}

// Paths are shown as text: bytes that are not printable ASCII appear as '?'.
std::string printablePath(const char *path, size_t length)
{
    std::string out;
    for (size_t i = 0; i < std::min(length, kMaxLoggedPath); ++i) {
        const unsigned char c = static_cast<unsigned char>(path[i]);
        out += c >= 0x20 && c < 0x7f ? char(c) : '?';
    }
    if (length > kMaxLoggedPath)
        out += "...";
    return out;
}

const char *kindName(int kind)
{
    return kind == 0 ? "frame" : kind == 1 ? "file" : "shm";
}

} // namespace

bool IosPeer::listen(const std::string &path)
{
    listen_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) {
        logLine("iOS peer: socket path too long: %s", path.c_str());
        return false;
    }
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    unlink(path.c_str());
    if (!listen_ || bind(listen_.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) < 0
        || ::listen(listen_.get(), 8) < 0) {
        logLine("iOS peer: cannot listen at %s: %s", path.c_str(), strerror(errno));
        return false;
    }
    return true;
}

void IosPeer::start()
{
    acceptThread_ = std::thread([this] { acceptLoop(); });
    // The emulator leaves with _exit; nothing joins the peer's threads.
    acceptThread_.detach();
}

void IosPeer::acceptLoop()
{
    for (;;) {
        usbd::UniqueFd conn(accept4(listen_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!conn) {
            if (errno == EINTR || errno == ECONNABORTED || errno == EMFILE || errno == ENFILE)
                continue;
            return;
        }
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (connections_ >= kMaxConnections) {
                logLine("iOS peer: more than %zu library connections; one refused",
                        kMaxConnections);
                continue;
            }
            ++connections_;
        }
        std::thread([this, c = std::move(conn)]() mutable { serve(std::move(c)); }).detach();
    }
}

bool IosPeer::waitUnblocked(int conn)
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (!blocked_)
        return true;
    ++held_;
    while (blocked_ && !hungUp(conn))
        released_.wait_for(lock, kHangUpCheck);
    --held_;
    return !blocked_;
}

void IosPeer::serve(usbd::UniqueFd conn)
{
    const int fd = conn.get();
    for (;;) {
        iosconn_sim_head head;
        if (!readAll(fd, &head, sizeof head))
            break;
        if (head.kind < IOSCONN_SIM_FRAME || head.kind > IOSCONN_SIM_SHM
            || head.meta_length > IOSCONN_SIM_MAX_META) {
            logLine("iOS peer: malformed message (kind %u, %u bytes of header): connection closed",
                    head.kind, head.meta_length);
            break;
        }
        std::vector<uint8_t> meta(head.meta_length);
        if (!readAll(fd, meta.data(), meta.size()))
            break;

        Arrival a;
        a.kind = Kind(head.kind - IOSCONN_SIM_FRAME);
        a.data = head.data_length;
        a.metaLength = head.meta_length;
        a.padding = head.padding_length;
        const uint8_t *m = meta.data();
        bool wellFormed = true;
        if (a.kind == Kind::Frame) {
            wellFormed = meta.size() >= IOSCONN_SIM_FRAME_HEADER;
            if (wellFormed) {
                a.marker = get32(m);
                a.total = get32(m + 4);
                a.offset = get32(m + 8);
                a.length = get32(m + 12);
                a.session = get16(m + 16);
            }
        } else {
            const size_t fixed =
                a.kind == Kind::File ? IOSCONN_SIM_FILE_RECORD : IOSCONN_SIM_SHM_RECORD;
            wellFormed = meta.size() >= fixed;
            if (wellFormed) {
                a.source = get32(m);
                a.total = get32(m + 4);
                a.offset = get32(m + 8);
                a.length = get32(m + 12);
                a.session = get16(m + 20);
            }
            if (wellFormed && a.kind == Kind::File) {
                const size_t pathLength = get16(m + 22);
                wellFormed = meta.size() == fixed + pathLength + 1;
                if (wellFormed)
                    a.path = printablePath(reinterpret_cast<const char *>(m + fixed), pathLength);
            } else if (wellFormed) {
                memcpy(&a.handle, m + 22, sizeof a.handle);
            }
        }

        // The bytes are kept only when they can be, and read (to stay in step) in any case.
        const bool keep = head.data_length <= kMaxIosKeptBytes;
        std::vector<uint8_t> data;
        if (keep) {
            data.resize(head.data_length);
            if (!readAll(fd, data.data(), data.size()))
                break;
        } else if (!discard(fd, head.data_length)) {
            break;
        }

        const bool answered = waitUnblocked(fd) && !hungUp(fd);
        std::unique_lock<std::mutex> lock(mutex_);
        if (!answered) {
            a.result = "interrupted";
            recordLocked(std::move(a));
            break;
        }
        uint64_t accepted = head.data_length;
        if (!wellFormed) {
            a.answer = -1;
            a.result = "malformed";
        } else if (failNext_ > 0) {
            --failNext_;
            a.answer = -1;
            a.result = "failed";
        } else if (a.kind == Kind::Frame) {
            a.result = "accepted";
            if (partialNext_ >= 0) {
                accepted = std::min<uint64_t>(accepted, uint64_t(partialNext_));
                partialNext_ = -1;
                a.result = "partial";
            }
            a.answer = int32_t(std::min<uint64_t>(head.meta_length + accepted, INT32_MAX));
            addPieceLocked(a, a.offset, keep ? data.data() : nullptr, size_t(accepted), 0);
        } else {
            a.answer = 1;
            a.result = "accepted";
            addPieceLocked(a, a.offset, keep ? data.data() : nullptr, data.size(), a.padding);
        }
        const int32_t answer = a.answer;
        recordLocked(std::move(a));
        lock.unlock();
        if (send(fd, &answer, sizeof answer, MSG_NOSIGNAL) != ssize_t(sizeof answer))
            break;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    --connections_;
}

void IosPeer::addPieceLocked(const Arrival &arrival, uint32_t offset, const uint8_t *data,
                             size_t size, uint32_t padding)
{
    // Requests arrive one after another, each from offset 0 upwards; a piece that does not
    // continue the current request starts the next one.
    Request *current = requests_.empty() ? nullptr : &requests_.back();
    if (!current || current->complete || current->abandoned || current->total != arrival.total
        || offset < current->end) {
        if (current && !current->complete && !current->abandoned) {
            current->abandoned = true;
            current->bytes = std::vector<uint8_t>();
            logLine("iOS peer: request %llu abandoned after %llu of %u bytes",
                    static_cast<unsigned long long>(current->seq),
                    static_cast<unsigned long long>(current->received), current->total);
        }
        Request request;
        request.seq = nextRequestSeq_++;
        request.total = arrival.total;
        request.session = arrival.session;
        request.kept = arrival.total <= kMaxIosKeptBytes;
        if (request.kept)
            request.bytes.assign(arrival.total, 0);
        requests_.push_back(std::move(request));
        while (requests_.size() > kMaxIosRequests)
            requests_.pop_front();
        current = &requests_.back();
    }
    Request &r = *current;
    ++r.pieces;
    if (r.kept && !data && size > 0)
        r.kept = false;
    if (r.kept && offset < r.total)
        memcpy(r.bytes.data() + offset, data, std::min<size_t>(size, r.total - offset));
    r.received += uint64_t(size) + padding;
    r.end = std::max<uint64_t>(r.end, uint64_t(offset) + size + padding);
    if (r.received < r.total)
        return;
    r.complete = true;
    ++completed_;
    if (capture_ && r.kept) {
        for (size_t done = 0; done < r.bytes.size();) {
            const ssize_t n = write(capture_.get(), r.bytes.data() + done, r.bytes.size() - done);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0) {
                logLine("iOS peer: capture write failed: %s; capture off", strerror(errno));
                capture_.reset();
                break;
            }
            done += size_t(n);
        }
    }
    logLine("iOS peer: request %llu complete: %u bytes in %zu pieces, session %u%s",
            static_cast<unsigned long long>(r.seq), r.total, r.pieces, r.session,
            r.kept ? "" : " (too large to keep)");
    r.bytes = std::vector<uint8_t>();
}

void IosPeer::recordLocked(Arrival arrival)
{
    arrival.seq = nextSeq_++;
    ++arrivalCount_;
    if (arrival.answer < 0 || verbose())
        logLine("iOS peer: %s", arrivalText(arrival).c_str());
    arrivals_.push_back(std::move(arrival));
    while (arrivals_.size() > kMaxIosArrivals)
        arrivals_.pop_front();
}

std::string IosPeer::arrivalText(const Arrival &a) const
{
    char text[256];
    if (a.kind == Kind::Frame)
        snprintf(
            text, sizeof text,
            "frame #%llu: marker 0x%x total %u offset %u length %u session %u, %u bytes -> %d (%s)",
            static_cast<unsigned long long>(a.seq), a.marker, a.total, a.offset, a.length,
            a.session, a.data, a.answer, a.result);
    else
        snprintf(text, sizeof text,
                 "%s record #%llu: %s %u total %u request offset %u size %u padding %u session %u, "
                 "%u bytes -> %d (%s)",
                 kindName(int(a.kind)), static_cast<unsigned long long>(a.seq),
                 a.kind == Kind::File ? "file offset" : "offset", a.source, a.total, a.offset,
                 a.length, a.padding, a.session, a.data, a.answer, a.result);
    std::string out = text;
    if (a.kind == Kind::File)
        out += ", path " + a.path;
    else if (a.kind == Kind::Shm)
        out += ", handle 0x" + [&] {
            char hex[24];
            snprintf(hex, sizeof hex, "%llx", static_cast<unsigned long long>(a.handle));
            return std::string(hex);
        }();
    return out;
}

void IosPeer::failNext(unsigned count)
{
    std::lock_guard<std::mutex> lock(mutex_);
    failNext_ = count;
}

void IosPeer::partialNext(long payloadBytes)
{
    std::lock_guard<std::mutex> lock(mutex_);
    partialNext_ = payloadBytes;
}

void IosPeer::setBlocked(bool blocked)
{
    std::lock_guard<std::mutex> lock(mutex_);
    blocked_ = blocked;
    released_.notify_all();
}

void IosPeer::reset()
{
    std::lock_guard<std::mutex> lock(mutex_);
    arrivals_.clear();
    requests_.clear();
    arrivalCount_ = 0;
    completed_ = 0;
    failNext_ = 0;
    partialNext_ = -1;
}

void IosPeer::setCapture(usbd::UniqueFd fd)
{
    std::lock_guard<std::mutex> lock(mutex_);
    capture_ = std::move(fd);
}

IosPeerStatus IosPeer::status()
{
    std::lock_guard<std::mutex> lock(mutex_);
    IosPeerStatus s;
    s.connections = connections_;
    s.arrivals = arrivalCount_;
    s.completed = completed_;
    s.failNext = failNext_;
    s.partialNext = partialNext_;
    s.blocked = blocked_;
    s.held = held_;
    s.capturing = bool(capture_);
    return s;
}

std::string IosPeer::logJson()
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto n = [](uint64_t value) { return std::to_string(value); };
    std::string requests;
    for (const Request &r : requests_) {
        requests += std::string(requests.empty() ? "" : ",") + "{\"seq\":" + n(r.seq)
                    + ",\"total\":" + n(r.total) + ",\"session\":" + n(r.session)
                    + ",\"received\":" + n(r.received) + ",\"pieces\":" + n(r.pieces)
                    + ",\"complete\":" + (r.complete ? "true" : "false")
                    + ",\"abandoned\":" + (r.abandoned ? "true" : "false")
                    + ",\"kept\":" + (r.kept ? "true" : "false") + "}";
    }
    // Newest first until the answer is full, then back in arrival order.
    std::vector<std::string> entries;
    size_t used = requests.size();
    for (auto it = arrivals_.rbegin(); it != arrivals_.rend(); ++it) {
        const Arrival &a = *it;
        std::string e = "{\"seq\":" + n(a.seq) + ",\"kind\":\"" + kindName(int(a.kind)) + "\"";
        if (a.kind == Kind::Frame) {
            e += ",\"marker\":" + n(a.marker) + ",\"total\":" + n(a.total)
                 + ",\"offset\":" + n(a.offset) + ",\"length\":" + n(a.length);
        } else {
            e += std::string(a.kind == Kind::File ? ",\"file_offset\":" : ",\"offset\":")
                 + n(a.source) + ",\"total\":" + n(a.total) + ",\"request_offset\":" + n(a.offset)
                 + ",\"size\":" + n(a.length) + ",\"padding\":" + n(a.padding);
        }
        e += ",\"session\":" + n(a.session);
        if (a.kind == Kind::File)
            e += ",\"path\":" + jsonString(a.path);
        if (a.kind == Kind::Shm)
            e += ",\"handle\":" + n(a.handle);
        e += ",\"header_bytes\":" + n(a.metaLength) + ",\"data\":" + n(a.data)
             + ",\"answer\":" + std::to_string(a.answer) + ",\"result\":\"" + a.result + "\"}";
        if (used + e.size() + 1 > kMaxLogOutput)
            break;
        used += e.size() + 1;
        entries.push_back(std::move(e));
    }
    std::string out = "{\"arrivals\":[";
    for (auto it = entries.rbegin(); it != entries.rend(); ++it)
        out += (it == entries.rbegin() ? "" : ",") + *it;
    out +=
        "],\"omitted\":" + n(arrivalCount_ - entries.size()) + ",\"requests\":[" + requests + "]}";
    return out;
}

std::string IosPeer::logText()
{
    std::lock_guard<std::mutex> lock(mutex_);
    // The newest lines that fit one answer.
    std::string out;
    for (auto it = arrivals_.rbegin(); it != arrivals_.rend(); ++it) {
        const std::string line = arrivalText(*it) + "\n";
        if (out.size() + line.size() > kMaxLogOutput / 2)
            break;
        out.insert(0, line);
    }
    for (const Request &r : requests_) {
        char line[160];
        snprintf(line, sizeof line,
                 "request %llu: %llu of %u bytes in %zu pieces, session %u, %s\n",
                 static_cast<unsigned long long>(r.seq),
                 static_cast<unsigned long long>(r.received), r.total, r.pieces, r.session,
                 r.complete    ? "complete"
                 : r.abandoned ? "abandoned"
                               : "in progress");
        out += line;
    }
    return out.empty() ? "nothing arrived\n" : out;
}

} // namespace usbdemu
