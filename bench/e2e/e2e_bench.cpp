// End-to-end figures of the running daemon, each against a minimal sender of the same bytes into
// the same sink (the emulator's discarding ep3), the two sides in turns A B B A:
//   file   D-Bus send_file of one large file (one piece; 64 pieces of 16 MiB with padding)
//          against mmap + writev in this process;
//   shm    D-Bus send_shm_data of one shared-memory buffer by virtual and by physical address
//          against import + map + writev / import + endpoint ioctl in this process;
//   socket socket requests of 64 B memory entries and 4 KiB / 1 MiB handle entries with 1, 4,
//          16 and 64 clients against e2e_minimal's server of the same protocol;
//   dbus   D-Bus send_data round trips against e2e_minimal's one-method service on the same bus;
//   link   ep0 ENABLE to a bus client seeing link_type in PropertiesChanged (median, p99);
//   curves throughput and p99 latency against request size and against clients, and the
//          daemon's RSS with 64 busy clients, written as data files for scripts/bench-e2e-plot.
// The server side's CPU time and context switches are read from /proc (all of its threads) and
// given per request or per GiB; a loaded machine moves them far less than the wall-clock rates.
// Runs as the command of usbd-emu --dbus (scripts/bench-e2e); starts usbd and e2e_minimal.
// Environment: USBD_BIN, E2E_MINIMAL_BIN, USBD_EMU_NAME (empty: the sink is a real gadget that is
// attached already, and the emulator-only link case is skipped).
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusPendingCall>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QList>
#include <QVariantMap>

#include <arvo_hal.h>
#include <usbd/client.h>
#include <usbd/dbusmaps.h>
#include <usbd/protocol.h>

#include "../benchutil.h"
#include "../clientwait.h"
#include "../endpoint_write.h"

#include "arvomemshare.h"
#include "control.h"

namespace {

using Clock = std::chrono::steady_clock;
using benchutil::env;
using benchutil::median;
using benchutil::percentile;
using benchutil::spawn;
using benchutil::stop;
using usbd::client::Connection;
using usbd::client::Response;
using usbd::client::SendRequest;

constexpr std::size_t kKiB = 1024;
constexpr std::size_t kMiB = 1024 * 1024;
constexpr double kGiB = 1024.0 * 1024.0 * 1024.0;
constexpr char kMinimalSocket[] = "/tmp/usbd-bench-minimal-socket";
constexpr char kMinimalService[] = "com.korvane.usbdbench";
constexpr int kDbusTimeoutMs = 120000;

struct Options {
    int rounds = 4;       // A B B A: a multiple of 2 gives each side both places
    double seconds = 1.0; // per socket or send_data run
    std::size_t fileMiB = 1024;
    std::size_t shmMiB = 256;
    int linkIterations = 40;
    std::string cases = "file,shm,socket,dbus,curves,link";
    std::string dataDir;    // curve data files; none written when empty
    std::string profile;    // perf record of the daemon over all cases run, to this file
    bool callgrind = false; // servers under callgrind: instructions per request
    std::vector<std::size_t> socketSizes;
    std::vector<int> clientCounts;
    bool quick = false;
};

bool wanted(const Options &o, const char *name)
{
    return ("," + o.cases + ",").find(std::string(",") + name + ",") != std::string::npos;
}

// ---- the server process as /proc shows it ----

struct ProcStats {
    double cpuSeconds = 0; // on-CPU time of all threads (schedstat, nanoseconds)
    long switches = 0;     // voluntary and involuntary context switches of all threads
    long rssKiB = 0, hwmKiB = 0;
};

long statusField(const std::string &text, const char *key)
{
    const std::size_t at = text.find(key);
    return at == std::string::npos ? 0 : std::atol(text.c_str() + at + std::strlen(key));
}

std::string slurp(const std::string &path)
{
    std::string text;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return text;
    char buffer[4096];
    for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;)
        text.append(buffer, std::size_t(n));
    ::close(fd);
    return text;
}

ProcStats readStats(pid_t pid)
{
    ProcStats stats;
    const std::string base = "/proc/" + std::to_string(pid);
    if (DIR *dir = ::opendir((base + "/task").c_str())) {
        while (dirent *entry = ::readdir(dir)) {
            if (entry->d_name[0] == '.')
                continue;
            const std::string task = base + "/task/" + entry->d_name;
            stats.cpuSeconds += std::atof(slurp(task + "/schedstat").c_str()) / 1e9;
            const std::string status = slurp(task + "/status");
            stats.switches += statusField(status, "\nvoluntary_ctxt_switches:")
                              + statusField(status, "\nnonvoluntary_ctxt_switches:");
        }
        ::closedir(dir);
    }
    const std::string status = slurp(base + "/status");
    stats.rssKiB = statusField(status, "\nVmRSS:");
    stats.hwmKiB = statusField(status, "\nVmHWM:");
    return stats;
}

// The calling thread's own CPU time and context switches, for the senders in this process.
ProcStats threadStats()
{
    ProcStats stats;
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    stats.cpuSeconds = double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    stats.switches = usage.ru_nvcsw + usage.ru_nivcsw;
    return stats;
}

// With --callgrind: the instructions a server run under callgrind has executed so far, all
// threads, as callgrind_control reports them; -1 when it cannot tell.
bool gCallgrind = false;

double instructionsSoFar(pid_t pid)
{
    if (!gCallgrind)
        return -1;
    const std::string command = "callgrind_control -e Ir " + std::to_string(pid) + " 2>/dev/null";
    FILE *pipe = ::popen(command.c_str(), "r");
    if (!pipe)
        return -1;
    // "  Totals:     Ir", then one line per thread: "   Th 1  304,045"
    double total = -1;
    char line[512];
    while (std::fgets(line, sizeof line, pipe)) {
        const char *at = std::strstr(line, "Th ");
        if (!at)
            continue;
        at += 3;
        while (*at >= '0' && *at <= '9')
            ++at; // the thread number
        std::string digits;
        for (const char *p = at; *p && *p != '\n'; ++p)
            if (*p >= '0' && *p <= '9')
                digits += *p;
        if (!digits.empty())
            total = std::max(0.0, total) + std::atof(digits.c_str());
    }
    ::pclose(pipe);
    return total;
}

// ---- processes ----

// One request to the emulator's control socket, straight, so that no process start lies
// between the event and the time taken for it.
class Emulator {
public:
    bool open(const std::string &name)
    {
        sock_.reset(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        sockaddr_un address;
        const socklen_t length = usbdemu::controlAddress(name, address);
        return sock_ && ::connect(sock_.get(), reinterpret_cast<sockaddr *>(&address), length) == 0;
    }
    bool call(const std::vector<std::string> &args)
    {
        usbdemu::Message reply;
        return sock_ && usbdemu::sendMessage(sock_.get(), args)
               && usbdemu::receiveMessage(sock_.get(), reply) == 1 && !reply.args.empty()
               && reply.args[0] == "ok";
    }

private:
    usbd::UniqueFd sock_;
};

// On the real kernel under qemu the gadget is bound and enumerated only after the daemon has
// written its descriptors, which there takes several seconds: so the waits are long.
bool waitForLink(const std::string &path)
{
    Connection connection;
    return benchwait::connectWithin(&connection, path, std::chrono::seconds(60))
           && benchwait::waitForLink(&connection, std::chrono::seconds(60));
}

// ---- one measured run and the comparison in turns ----

struct Sample {
    double rate = 0; // MB/s, requests/s or calls/s: higher is better
    double p50Us = 0, p99Us = 0;
    double cpuPerUnit = 0; // CPU seconds per GiB, or CPU microseconds per request
    double switchesPerUnit = 0;
    double instructionsPerUnit = 0; // with --callgrind: user-space instructions, all threads
    long rssKiB = 0, hwmKiB = 0;
};

using Run = std::function<bool(int side, Sample *)>; // side 0: usbd, 1: the minimal sender

struct Comparison {
    std::string label, unit, cpuUnit, switchUnit;
    bool ok = true;
    std::vector<Sample> samples[2];
    std::vector<double> rateRatio, cpuRatio, switchRatio;
};

// A B B A: whichever side runs second in a pair pays for what the first left behind (caches,
// the emulator's queues), so each takes both places equally often.
Comparison compare(const std::string &label, const char *unit, const char *cpuUnit,
                   const char *switchUnit, int rounds, const Run &run)
{
    Comparison c;
    c.label = label;
    c.unit = unit;
    c.cpuUnit = cpuUnit;
    c.switchUnit = switchUnit;
    for (int round = 0; c.ok && round < rounds; ++round) {
        Sample s[2];
        const bool usbdFirst = round % 4 == 0 || round % 4 == 3;
        for (int i = 0; c.ok && i < 2; ++i) {
            const int side = usbdFirst ? i : 1 - i;
            c.ok = run(side, &s[side]);
        }
        if (!c.ok)
            break;
        for (int side = 0; side < 2; ++side)
            c.samples[side].push_back(s[side]);
        c.rateRatio.push_back(s[0].rate / std::max(1e-9, s[1].rate));
        c.cpuRatio.push_back(s[0].cpuPerUnit / std::max(1e-12, s[1].cpuPerUnit));
        c.switchRatio.push_back(s[0].switchesPerUnit / std::max(1e-12, s[1].switchesPerUnit));
        std::fprintf(stderr, "%s, round %d: usbd %.0f %s %.3g %s, minimal %.0f %s %.3g %s\n",
                     label.c_str(), round + 1, s[0].rate, unit, s[0].cpuPerUnit, cpuUnit, s[1].rate,
                     unit, s[1].cpuPerUnit, cpuUnit);
    }
    if (!c.ok)
        std::printf("%s: FAILED (a request failed or a server went away)\n", label.c_str());
    return c;
}

double medianOf(const std::vector<Sample> &samples, double Sample::*field)
{
    std::vector<double> v;
    for (const Sample &s : samples)
        v.push_back(s.*field);
    return median(v);
}

void print(const Comparison &c, const char *aim)
{
    if (!c.ok)
        return;
    const char *names[2] = {"usbd", "minimal"};
    std::printf("%s:\n", c.label.c_str());
    for (int side = 0; side < 2; ++side) {
        const auto &s = c.samples[side];
        std::printf("  %-7s %10.0f %s", names[side], medianOf(s, &Sample::rate), c.unit.c_str());
        if (medianOf(s, &Sample::p99Us) > 0)
            std::printf(", latency us p50 %.0f p99 %.0f", medianOf(s, &Sample::p50Us),
                        medianOf(s, &Sample::p99Us));
        std::printf(", CPU %.3g %s, %.3g switches %s", medianOf(s, &Sample::cpuPerUnit),
                    c.cpuUnit.c_str(), medianOf(s, &Sample::switchesPerUnit), c.switchUnit.c_str());
        if (medianOf(s, &Sample::instructionsPerUnit) > 0)
            std::printf(", %.0f instructions %s", medianOf(s, &Sample::instructionsPerUnit),
                        c.switchUnit.c_str());
        std::printf("\n");
    }
    std::printf("  ratio usbd/minimal: %s %.3f%s, CPU %.3f, switches %.3f", c.unit.c_str(),
                median(c.rateRatio), aim, median(c.cpuRatio), median(c.switchRatio));
    std::vector<double> instructionRatio;
    for (std::size_t i = 0; i < c.samples[0].size(); ++i)
        if (c.samples[1][i].instructionsPerUnit > 0)
            instructionRatio.push_back(c.samples[0][i].instructionsPerUnit
                                       / c.samples[1][i].instructionsPerUnit);
    if (!instructionRatio.empty())
        std::printf(", instructions %.3f", median(instructionRatio));
    std::printf("\n");
    std::fflush(stdout);
}

// ---- bulk sends: D-Bus requests against a sender in this process ----

QDBusMessage usbdCall(const char *method)
{
    return QDBusMessage::createMethodCall(
        QLatin1String(usbd::kDBusService), QLatin1String(usbd::kDBusObjectPath),
        QLatin1String(usbd::kDBusInterface), QLatin1String(method));
}

bool callOk(const QDBusMessage &reply)
{
    if (reply.type() == QDBusMessage::ReplyMessage)
        return true;
    std::fprintf(stderr, "e2e-bench: %s\n", qPrintable(reply.errorMessage()));
    return false;
}

struct Piece {
    std::size_t offset = 0, size = 0, padding = 0;
};

// What a program that owns the endpoint writes by hand: the pieces of one mapping and their
// padding, in calls as endpoint_write.h makes them.
bool writeSegments(int ep3, const char *base, const std::vector<Piece> &pieces, const char *zeros)
{
    std::vector<iovec> segments;
    for (const Piece &p : pieces) {
        segments.push_back({const_cast<char *>(base + p.offset), p.size});
        if (p.padding)
            segments.push_back({const_cast<char *>(zeros), p.padding});
    }
    return endpointwrite::writeSegments(ep3, segments);
}

bool rawFile(int ep3, const std::string &path, std::size_t fileSize,
             const std::vector<Piece> &pieces, const char *zeros)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    void *mapping = ::mmap(nullptr, fileSize, PROT_READ, MAP_SHARED, fd, 0);
    ::close(fd);
    if (mapping == MAP_FAILED)
        return false;
    const bool ok = writeSegments(ep3, static_cast<const char *>(mapping), pieces, zeros);
    ::munmap(mapping, fileSize);
    return ok;
}

QVariantMap fileMap(const std::string &path, const Piece &p)
{
    usbd::dbusmaps::FilePiece piece;
    piece.path = QString::fromStdString(path);
    piece.offset = quint32(p.offset);
    piece.size = quint32(p.size);
    piece.elementPadding = quint32(p.padding);
    return usbd::dbusmaps::fileMap(piece);
}

// The pieces go out as requests of at most 16 pieces (32 segments with padding), all sent at
// once so that the queue never runs dry between them.
bool usbdFile(const std::string &path, const std::vector<Piece> &pieces)
{
    QList<QDBusPendingCall> calls;
    for (std::size_t first = 0; first < pieces.size(); first += 16) {
        QList<QVariantMap> list;
        for (std::size_t i = first; i < std::min(pieces.size(), first + 16); ++i)
            list.append(fileMap(path, pieces[i]));
        QDBusMessage call = usbdCall("send_file");
        call << QVariant::fromValue(list);
        calls.append(QDBusConnection::systemBus().asyncCall(call, kDbusTimeoutMs));
    }
    bool ok = true;
    for (QDBusPendingCall &call : calls) {
        call.waitForFinished();
        ok = callOk(call.reply()) && ok;
    }
    return ok;
}

bool makeFile(const std::string &path, std::size_t size)
{
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        return false;
    std::vector<char> block(kMiB);
    bool ok = true;
    for (std::size_t done = 0; ok && done < size; done += kMiB) {
        std::fill(block.begin(), block.end(), char(done / kMiB));
        ok = ::write(fd, block.data(), kMiB) == ssize_t(kMiB);
    }
    ::close(fd);
    return ok;
}

// Times one bulk send of `bytes` on either side; the usbd side counts the daemon's CPU, the
// minimal side this thread's.
bool timeBulk(pid_t usbd, int side, std::size_t bytes, const std::function<bool()> &send, Sample *s)
{
    const ProcStats before = side == 0 ? readStats(usbd) : threadStats();
    const auto start = Clock::now();
    const bool ok = send();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    const ProcStats after = side == 0 ? readStats(usbd) : threadStats();
    const double gib = double(bytes) / kGiB;
    s->rate = double(bytes) / 1e6 / seconds;
    s->cpuPerUnit = (after.cpuSeconds - before.cpuSeconds) / gib;
    s->switchesPerUnit = double(after.switches - before.switches) / gib;
    return ok;
}

void fileCases(const Options &o, pid_t usbd, int ep3)
{
    const std::size_t size = o.fileMiB * kMiB;
    const std::string path = "/tmp/usbd-e2e-file";
    if (!makeFile(path, size)) {
        std::printf("file: cannot create %zu MiB in /tmp\n", o.fileMiB);
        return;
    }
    std::vector<char> zeros(4096, 0);
    const std::vector<Piece> whole{{0, size, 0}};
    std::vector<Piece> pieces;
    const std::size_t pieceSize = size / 64;
    for (std::size_t i = 0; i < 64; ++i)
        pieces.push_back({i * pieceSize, pieceSize, 512});
    const std::size_t piecesBytes = 64 * (pieceSize + 512);

    const std::string name = "send_file " + std::to_string(o.fileMiB) + " MiB";
    const struct {
        const char *label;
        const std::vector<Piece> &pieces;
        std::size_t bytes;
    } cases[] = {{", one piece", whole, size},
                 {", 64 pieces with 512 B padding in 4 requests", pieces, piecesBytes}};
    for (const auto &c : cases) {
        print(compare(name + c.label, "MB/s", "CPU s/GiB", "per GiB", o.rounds,
                      [&](int side, Sample *s) {
                          return timeBulk(
                              usbd, side, c.bytes,
                              [&] {
                                  return side == 0
                                             ? usbdFile(path, c.pieces)
                                             : rawFile(ep3, path, size, c.pieces, zeros.data());
                              },
                              s);
                      }),
              " (aim >= 0.95; CPU aim <= 1.10)");
    }
    ::unlink(path.c_str());
}

bool usbdShm(quint64 handle, std::size_t size, bool physical)
{
    usbd::dbusmaps::ShmPiece piece;
    piece.handle = handle;
    piece.size = quint32(size);
    piece.usePhysicalAddress = physical;
    QDBusMessage call = usbdCall("send_shm_data");
    call << QVariant::fromValue(QList<QVariantMap>{usbd::dbusmaps::shmMap(piece)});
    return callOk(QDBusConnection::systemBus().call(call, QDBus::Block, kDbusTimeoutMs));
}

// The least a program must do with a share handle: import it, then map and write it, or hand
// its physical address to the endpoint in 8 MiB calls.
bool rawShm(int ep3, quint64 handle, std::size_t size, bool physical)
{
    arvo_hal_mem_t memory = 0;
    if (arvo_hal_mem_import(ArvoMemShare::ion()->handle(), &memory, handle) != 0)
        return false;
    bool ok = true;
    if (physical) {
        uint32_t address = 0;
        ok = arvo_hal_mem_get_phys_addr(memory, &address) == 0
             && endpointwrite::writePhysical(ep3, address, size);
    } else {
        uint8_t *base = nullptr;
        ok = arvo_hal_mem_map(memory, &base) == 0;
        if (ok) {
            ok = writeSegments(ep3, reinterpret_cast<const char *>(base), {{0, size, 0}}, nullptr);
            arvo_hal_mem_unmap(memory);
        }
    }
    arvo_hal_mem_free(memory);
    return ok;
}

void shmCases(const Options &o, pid_t usbd, int ep3)
{
    const std::size_t size = o.shmMiB * kMiB;
    ArvoMemShare shm(quint32(size), false, nullptr);
    if (!shm.data()) {
        std::printf("shm: no shared memory of %zu MiB\n", o.shmMiB);
        return;
    }
    std::memset(shm.data(), 0x5A, size);
    const quint64 handle = shm.shareHandle();
    for (const bool physical : {false, true}) {
        // The daemon reads no use_physical_address flag: its USB transport sends ION memory by
        // physical address either way. The minimal sender does what the flag asks.
        const std::string name = "send_shm_data " + std::to_string(o.shmMiB) + " MiB, "
                                 + (physical ? "by physical address"
                                             : "use_physical_address false (minimal: by virtual "
                                               "address; usbd: by physical address all the same)");
        print(compare(name, "MB/s", "CPU s/GiB", "per GiB", o.rounds,
                      [&](int side, Sample *s) {
                          return timeBulk(
                              usbd, side, size,
                              [&] {
                                  return side == 0 ? usbdShm(handle, size, physical)
                                                   : rawShm(ep3, handle, size, physical);
                              },
                              s);
                      }),
              physical ? " (no CPU copy on either side: the endpoint takes the address)"
                       : " (aim >= 0.95; CPU aim <= 1.10)");
    }
}

// ---- socket requests ----

struct SocketLoad {
    std::size_t entryBytes = 64;
    quint64 handle = 0; // entries above what fits inline come from shared memory
    int clients = 1;
};

bool runSocket(const std::string &path, pid_t server, const SocketLoad &load, double seconds,
               Sample *s)
{
    struct Result {
        std::vector<std::uint32_t> latencies;
        bool broken = false;
    };
    std::vector<Result> results(std::size_t(load.clients));
    std::vector<std::thread> threads;
    std::atomic<bool> stopped{false};
    std::atomic<long> answered{0};
    const auto measureFrom = Clock::now() + std::chrono::milliseconds(200);
    const auto end =
        measureFrom
        + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    for (int i = 0; i < load.clients; ++i) {
        threads.emplace_back([&, i] {
            Result &r = results[std::size_t(i)];
            Connection connection;
            if (connection.connect(path) != 0) {
                r.broken = true;
                return;
            }
            std::vector<char> data(load.handle ? 0 : load.entryBytes, 0x5A);
            std::vector<std::uint8_t> request;
            // Requests go on until the server's figures have been read after the end, so that
            // no server thread ends (taking its counts with it) inside the window.
            for (std::uint32_t id = std::uint32_t(i) << 24; !stopped.load(); ++id) {
                const auto start = Clock::now();
                SendRequest send(id);
                if (load.handle)
                    send.addHandle(load.handle, 0, std::uint32_t(load.entryBytes));
                else
                    send.addMemory(data.data(), std::uint32_t(load.entryBytes));
                send.encode(&request);
                Response response;
                if (connection.send(request) != 0 || connection.receive(&response, 10000) != 0
                    || response.requestId != id || !response.sent()) {
                    r.broken = true;
                    return;
                }
                ++answered;
                if (start >= measureFrom && start < end)
                    r.latencies.push_back(std::uint32_t(
                        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start)
                            .count()));
            }
        });
    }
    std::this_thread::sleep_until(measureFrom);
    const ProcStats before = readStats(server);
    const double instructionsBefore = instructionsSoFar(server);
    // Requests answered in the window as the instruction counts see it, which take a while to
    // read: counted from the clients' side at the same moments.
    const long answeredBefore = answered.load();
    std::this_thread::sleep_until(end);
    const ProcStats after = readStats(server);
    const double instructionsAfter = instructionsSoFar(server);
    const long answeredAfter = answered.load();
    stopped = true;
    for (std::thread &t : threads)
        t.join();

    std::vector<std::uint32_t> all;
    for (const Result &r : results) {
        if (r.broken)
            return false;
        all.insert(all.end(), r.latencies.begin(), r.latencies.end());
    }
    const double count = std::max<double>(1, double(all.size()));
    s->rate = double(all.size()) / seconds;
    s->p50Us = percentile(all, 50);
    s->p99Us = percentile(all, 99);
    s->cpuPerUnit = (after.cpuSeconds - before.cpuSeconds) * 1e6 / count;
    s->switchesPerUnit = double(after.switches - before.switches) / count;
    if (instructionsBefore >= 0 && instructionsAfter >= 0 && answeredAfter > answeredBefore)
        s->instructionsPerUnit =
            (instructionsAfter - instructionsBefore) / double(answeredAfter - answeredBefore);
    s->rssKiB = after.rssKiB;
    s->hwmKiB = after.hwmKiB;
    return true;
}

std::string sizeLabel(std::size_t bytes)
{
    if (bytes >= kMiB && bytes % kMiB == 0)
        return std::to_string(bytes / kMiB) + " MiB";
    if (bytes >= kKiB && bytes % kKiB == 0)
        return std::to_string(bytes / kKiB) + " KiB";
    return std::to_string(bytes) + " B";
}

struct Servers {
    pid_t usbd = -1, minimal = -1;
};

// Entries that fit inline travel as memory entries; larger ones cannot (a request is one read
// of at most 4096 bytes) and are handle entries sent by physical address.
constexpr std::size_t kLargestInline = 2048;

void socketCases(const Options &o, const Servers &servers, ArvoMemShare *shm)
{
    const std::vector<std::size_t> sizes =
        o.socketSizes.empty() ? std::vector<std::size_t>{64, 4 * kKiB, kMiB} : o.socketSizes;
    const std::vector<int> clientCounts = !o.clientCounts.empty() ? o.clientCounts
                                          : o.quick               ? std::vector<int>{1, 16}
                                                                  : std::vector<int>{1, 4, 16, 64};
    for (const std::size_t size : sizes) {
        for (const int clients : clientCounts) {
            SocketLoad load;
            load.entryBytes = size;
            load.handle = size > kLargestInline ? shm->shareHandle() : 0;
            load.clients = clients;
            const char *aim = size <= kLargestInline && clients == 1    ? " (aim >= 0.9)"
                              : size <= kLargestInline && clients == 16 ? " (aim >= 0.8)"
                                                                        : "";
            const Comparison c = compare(
                "socket " + sizeLabel(size) + (load.handle ? " handle" : " memory") + " entries, "
                    + std::to_string(clients) + (clients == 1 ? " client" : " clients"),
                "requests/s", "us CPU/request", "per request", o.rounds, [&](int side, Sample *s) {
                    return runSocket(side == 0 ? usbd::kSocketPath : kMinimalSocket,
                                     side == 0 ? servers.usbd : servers.minimal, load, o.seconds,
                                     s);
                });
            print(c, aim);
            if (c.ok && clients == 64)
                std::printf("  usbd RSS with 64 busy clients: %ld KiB (peak %ld KiB)\n",
                            c.samples[0].back().rssKiB, c.samples[0].back().hwmKiB);
        }
    }
}

// ---- D-Bus send_data round trips ----

bool runSendData(const Servers &servers, int side, double seconds, Sample *s)
{
    QDBusMessage call = side == 0 ? usbdCall("send_data")
                                  : QDBusMessage::createMethodCall(
                                      QLatin1String(kMinimalService), QStringLiteral("/bench"),
                                      QLatin1String(kMinimalService), QStringLiteral("send_data"));
    call << QByteArray(64, 'd') << QVariant::fromValue<uchar>(64);
    QDBusConnection bus = QDBusConnection::systemBus();
    for (int i = 0; i < 20; ++i)
        if (!callOk(bus.call(call)))
            return false;
    std::vector<double> latencies;
    const pid_t server = side == 0 ? servers.usbd : servers.minimal;
    const ProcStats before = readStats(server);
    const double instructionsBefore = instructionsSoFar(server);
    const auto start = Clock::now();
    const auto end =
        start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    for (auto t = start; t < end;) {
        const QDBusMessage reply = bus.call(call);
        const auto done = Clock::now();
        if (!callOk(reply))
            return false;
        latencies.push_back(std::chrono::duration<double, std::micro>(done - t).count());
        t = done;
    }
    const ProcStats after = readStats(server);
    const double instructionsAfter = instructionsSoFar(server);
    if (instructionsBefore >= 0 && instructionsAfter >= 0)
        s->instructionsPerUnit =
            (instructionsAfter - instructionsBefore) / double(latencies.size());
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    s->rate = double(latencies.size()) / elapsed;
    s->p50Us = percentile(latencies, 50);
    s->p99Us = percentile(latencies, 99);
    s->cpuPerUnit = (after.cpuSeconds - before.cpuSeconds) * 1e6 / double(latencies.size());
    s->switchesPerUnit = double(after.switches - before.switches) / double(latencies.size());
    return true;
}

// ---- ep0 ENABLE to PropertiesChanged ----

class LinkWatcher : public QObject {
    Q_OBJECT
public:
    int linkType = -1;
    Clock::time_point seenAt;
public slots:
    void onPropertiesChanged(const QString &, const QVariantMap &changed, const QStringList &)
    {
        const auto it = changed.find(QStringLiteral("link_type"));
        if (it == changed.end())
            return;
        linkType = it->toInt();
        seenAt = Clock::now();
    }
};

bool waitLinkType(LinkWatcher *watcher, int value, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    while (watcher->linkType != value && timer.elapsed() < timeoutMs)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
    return watcher->linkType == value;
}

void linkCase(const Options &o, Emulator *emulator)
{
    LinkWatcher watcher;
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.connect(QLatin1String(usbd::kDBusService), QLatin1String(usbd::kDBusObjectPath),
                     QStringLiteral("org.freedesktop.DBus.Properties"),
                     QStringLiteral("PropertiesChanged"), &watcher,
                     SLOT(onPropertiesChanged(QString, QVariantMap, QStringList)))) {
        std::printf("link: cannot subscribe to PropertiesChanged\n");
        return;
    }
    std::vector<double> latencies;
    for (int i = 0; i < o.linkIterations; ++i) {
        if (!emulator->call({"event", "disable"}) || !waitLinkType(&watcher, 0, 5000)) {
            std::printf("link: the daemon did not report the link down\n");
            return;
        }
        // Let the daemon's other threads settle, as between two real plug events.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        QCoreApplication::processEvents();
        const auto start = Clock::now();
        if (!emulator->call({"event", "enable"}) || !waitLinkType(&watcher, 1, 5000)) {
            std::printf("link: the daemon did not report the link up\n");
            return;
        }
        latencies.push_back(
            std::chrono::duration<double, std::milli>(watcher.seenAt - start).count());
    }
    std::printf(
        "ep0 ENABLE to link_type PropertiesChanged at a bus client, %d times: median %.2f ms, "
        "p99 %.2f ms, max %.2f ms (aim: median <= 5 ms)\n",
        o.linkIterations, median(latencies), percentile(latencies, 99),
        *std::max_element(latencies.begin(), latencies.end()));
    std::fflush(stdout);
}

// ---- scaling curves ----

// One point of a curve: three runs per side in turns (A B, B A, A B), the medians.
bool curvePoint(const Servers &servers, const SocketLoad &load, double seconds, Sample out[2])
{
    std::vector<Sample> runs[2];
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < 2; ++i) {
            const int side = round % 2 == 0 ? i : 1 - i;
            Sample s;
            if (!runSocket(side == 0 ? usbd::kSocketPath : kMinimalSocket,
                           side == 0 ? servers.usbd : servers.minimal, load, seconds, &s))
                return false;
            runs[side].push_back(s);
        }
    }
    for (int side = 0; side < 2; ++side) {
        out[side].rate = medianOf(runs[side], &Sample::rate);
        out[side].p99Us = medianOf(runs[side], &Sample::p99Us);
        out[side].rssKiB = runs[side].back().rssKiB;
    }
    return true;
}

void curves(const Options &o, const Servers &servers, ArvoMemShare *shm)
{
    const double seconds = std::max(0.3, o.seconds / 2);
    FILE *sizeFile =
        o.dataDir.empty() ? nullptr : std::fopen((o.dataDir + "/size.dat").c_str(), "w");
    FILE *clientFile =
        o.dataDir.empty() ? nullptr : std::fopen((o.dataDir + "/clients.dat").c_str(), "w");
    if (sizeFile)
        std::fprintf(sizeFile,
                     "# bytes usbd_MBps minimal_MBps usbd_p99_us minimal_p99_us (1 client)\n");
    if (clientFile)
        std::fprintf(
            clientFile,
            "# clients usbd_rps minimal_rps usbd_p99_us minimal_p99_us usbd_rss_kib (64 B)\n");
    std::printf("scaling, medians of 3 runs per side and point in turns, %.1f s each:\n", seconds);
    const std::vector<std::size_t> sizes =
        o.quick
            ? std::vector<std::size_t>{64, 4 * kKiB, kMiB, 8 * kMiB}
            : std::vector<std::size_t>{64,         512,  2 * kKiB, 4 * kKiB, 16 * kKiB, 64 * kKiB,
                                       256 * kKiB, kMiB, 2 * kMiB, 4 * kMiB, 8 * kMiB};
    for (const std::size_t size : sizes) {
        SocketLoad load;
        load.entryBytes = size;
        load.handle = size > kLargestInline ? shm->shareHandle() : 0;
        Sample s[2];
        if (!curvePoint(servers, load, seconds, s))
            break;
        const double mb[2] = {s[0].rate * double(size) / 1e6, s[1].rate * double(size) / 1e6};
        std::printf("  %9s x1: usbd %8.1f MB/s p99 %6.0f us, minimal %8.1f MB/s p99 %6.0f us\n",
                    sizeLabel(size).c_str(), mb[0], s[0].p99Us, mb[1], s[1].p99Us);
        if (sizeFile)
            std::fprintf(sizeFile, "%zu %.3f %.3f %.0f %.0f\n", size, mb[0], mb[1], s[0].p99Us,
                         s[1].p99Us);
    }
    const std::vector<int> counts =
        o.quick ? std::vector<int>{1, 4, 16, 64} : std::vector<int>{1, 2, 4, 8, 16, 32, 64};
    for (const int clients : counts) {
        SocketLoad load;
        load.clients = clients;
        Sample s[2];
        if (!curvePoint(servers, load, seconds, s))
            break;
        std::printf("  64 B x%-3d: usbd %8.0f req/s p99 %6.0f us RSS %ld KiB, minimal %8.0f req/s "
                    "p99 %6.0f us\n",
                    clients, s[0].rate, s[0].p99Us, s[0].rssKiB, s[1].rate, s[1].p99Us);
        if (clientFile)
            std::fprintf(clientFile, "%d %.0f %.0f %.0f %.0f %ld\n", clients, s[0].rate, s[1].rate,
                         s[0].p99Us, s[1].p99Us, s[0].rssKiB);
    }
    if (sizeFile)
        std::fclose(sizeFile);
    if (clientFile)
        std::fclose(clientFile);
    std::fflush(stdout);
}

bool parseOptions(int argc, char **argv, Options *o)
{
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--quick") {
            o->quick = true;
            o->rounds = 2;
            o->seconds = 0.3;
            o->fileMiB = 128;
            o->shmMiB = 64;
            o->linkIterations = 10;
        } else if (arg == "--rounds" && hasValue) {
            o->rounds = std::max(1, std::atoi(argv[++i]));
        } else if (arg == "--seconds" && hasValue) {
            o->seconds = std::max(0.1, std::atof(argv[++i]));
        } else if (arg == "--file-mib" && hasValue) {
            o->fileMiB = std::size_t(std::max(64, std::atoi(argv[++i])));
        } else if (arg == "--shm-mib" && hasValue) {
            o->shmMiB = std::size_t(std::max(1, std::atoi(argv[++i])));
        } else if (arg == "--link-iterations" && hasValue) {
            o->linkIterations = std::max(1, std::atoi(argv[++i]));
        } else if (arg == "--cases" && hasValue) {
            o->cases = argv[++i];
        } else if (arg == "--callgrind") {
            o->callgrind = true;
        } else if (arg == "--socket-sizes" && hasValue) {
            o->socketSizes.clear(); // the last one given wins, as for every other option
            for (const QString &v : QString::fromLatin1(argv[++i]).split(QLatin1Char(',')))
                o->socketSizes.push_back(std::size_t(v.toULongLong()));
        } else if (arg == "--clients" && hasValue) {
            o->clientCounts.clear(); // the last one given wins, as for every other option
            for (const QString &v : QString::fromLatin1(argv[++i]).split(QLatin1Char(',')))
                o->clientCounts.push_back(std::max(1, v.toInt()));
        } else if (arg == "--profile" && hasValue) {
            o->profile = argv[++i];
        } else if (arg == "--data" && hasValue) {
            o->dataDir = argv[++i];
        } else {
            return false;
        }
    }
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    Options options;
    if (!parseOptions(argc, argv, &options)) {
        std::fprintf(stderr, "usage: e2e_bench [--quick] [--rounds N] [--seconds S] [--file-mib M] "
                             "[--shm-mib M] [--link-iterations N] [--cases file,shm,socket,dbus,"
                             "curves,link] [--data DIR]\n");
        return 2;
    }
    const std::string usbdBin = env("USBD_BIN"), minimalBin = env("E2E_MINIMAL_BIN");
    const std::string emulatorName = env("USBD_EMU_NAME");
    if (usbdBin.empty() || minimalBin.empty()) {
        std::fprintf(stderr,
                     "e2e-bench: run through scripts/bench-e2e (USBD_BIN, E2E_MINIMAL_BIN)\n");
        return 2;
    }
    QCoreApplication app(argc, argv);
    qDBusRegisterMetaType<QList<QVariantMap>>();
    signal(SIGPIPE, SIG_IGN);

    gCallgrind = options.callgrind;
    // Under callgrind the servers run many times slower; the counts are what matters then.
    const std::vector<std::string> wrapper =
        options.callgrind
            ? std::vector<std::string>{"/usr/bin/valgrind", "--tool=callgrind",
                                       "--callgrind-out-file="
                                           + (options.dataDir.empty() ? std::string("/tmp")
                                                                      : options.dataDir)
                                           + "/callgrind.out.%p"}
            : std::vector<std::string>{};
    auto wrapped = [&wrapper](std::vector<std::string> argv) {
        argv.insert(argv.begin(), wrapper.begin(), wrapper.end());
        return argv;
    };
    Servers servers;
    servers.usbd = spawn(wrapped({usbdBin}), "/tmp/usbd.log");
    Emulator emulator;
    bool ok = true;
    if (!emulatorName.empty()) {
        ok = emulator.open(emulatorName);
        // The function is ready once the daemon has written its blobs: ep3 exists then.
        for (int i = 0; ok && i < 3000 && ::access(usbd::kFfsEp3Path, F_OK) != 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        ok = ok && emulator.call({"plug"});
    }
    ok = ok && waitForLink(usbd::kSocketPath);
    if (!ok)
        std::fprintf(stderr,
                     "e2e-bench: the daemon did not come up with a USB link (see its log)\n");
    servers.minimal =
        spawn(wrapped({minimalBin, "--socket", kMinimalSocket, "--dbus", kMinimalService}),
              "/tmp/e2e-minimal.log");
    Connection probe;
    if (ok && !benchwait::connectWithin(&probe, kMinimalSocket, std::chrono::seconds(60))) {
        std::fprintf(stderr, "e2e-bench: the minimal server did not start\n");
        ok = false;
    }
    probe.close();
    const int ep3 = ::open(usbd::kFfsEp3Path, O_RDWR | O_CLOEXEC);
    ok = ok && ep3 >= 0;

    pid_t profiler = -1;
    if (ok && !options.profile.empty())
        profiler = spawn({"/usr/bin/perf", "record", "-q", "-e", "cpu-clock", "-F", "4000", "-g",
                          "-o", options.profile, "-p", std::to_string(servers.usbd)},
                         "/tmp/perf-record.log");
    std::printf("e2e-bench: %d rounds per comparison (A B B A ...), medians and the median of "
                "the per-round ratios; CPU and switches are the server process's\n",
                options.rounds);
    if (ok && wanted(options, "file"))
        fileCases(options, servers.usbd, ep3);
    if (ok && wanted(options, "shm"))
        shmCases(options, servers.usbd, ep3);
    ArvoMemShare shm(quint32(8 * kMiB), false, nullptr);
    if (ok && (wanted(options, "socket") || wanted(options, "curves")) && !shm.data()) {
        std::fprintf(stderr, "e2e-bench: no shared memory for handle entries\n");
        ok = false;
    }
    if (ok && wanted(options, "socket"))
        socketCases(options, servers, &shm);
    if (ok && wanted(options, "dbus"))
        print(compare("D-Bus send_data 64 B round trips, 1 client", "calls/s", "us CPU/call",
                      "per call", options.rounds,
                      [&](int side, Sample *s) {
                          return runSendData(servers, side, options.seconds, s);
                      }),
              "");
    if (ok && wanted(options, "curves"))
        curves(options, servers, &shm);
    // Last: it takes the link down and up, which drops whatever is queued.
    if (ok && wanted(options, "link") && !emulatorName.empty())
        linkCase(options, &emulator);

    std::printf("e2e-bench: load average at the end %s", slurp("/proc/loadavg").c_str());
    if (profiler > 0) {
        kill(profiler, SIGINT);
        waitpid(profiler, nullptr, 0);
    }
    if (ep3 >= 0)
        ::close(ep3);
    stop(servers.minimal);
    stop(servers.usbd);
    ::unlink(kMinimalSocket);
    return ok ? 0 : 1;
}

#include "e2e_bench.moc"
