// Throughput and CPU cost of the daemon's send path (UsbDataIn + USBConn) against a minimal
// raw writev() loop over the same bytes, both into the bulk IN endpoint. Runs inside the device
// emulator in the daemon's place; see scripts/bench.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <QByteArray>
#include <QString>

#include "arvomemshare.h"
#include "benchutil.h"
#include "endpoint_write.h"
#include "ffs_function.h"
#include "usbconn.h"
#include "usbdatain.h"
#include "usbdbuffer.h"
#include "usbdbufferlist.h"

namespace {

constexpr size_t kMiB = 1024 * 1024;
constexpr double kGiB = 1024.0 * 1024.0 * 1024.0;

struct Options {
    int rounds = 8;
    size_t memoryBufferMiB = 16; // 4 requests x 4 buffers
    size_t fileMiB = 64;         // 2 requests x 2 files
    quint32 padding = 512;
    size_t shmMiB = 256;
    std::string fileDir = "/tmp";
};

// One buffer of the workload: a memory block or a file, with its padding.
struct Piece {
    QByteArray memory;
    std::string path;
    size_t size = 0;
    quint32 padding = 0;
};
using Request = std::vector<Piece>;

double now(clockid_t clock)
{
    timespec ts;
    clock_gettime(clock, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

struct Sample {
    double seconds = 0;
    double cpuSeconds = 0;
};

// Completion of one request sent through the daemon's queue.
class Completion {
public:
    void done(bool ok)
    {
        std::lock_guard<std::mutex> guard(mutex_);
        ++finished_;
        failed_ += ok ? 0 : 1;
        changed_.notify_all();
    }
    bool wait(int count)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [&] { return finished_ >= count; });
        return failed_ == 0;
    }
    void reset()
    {
        std::lock_guard<std::mutex> guard(mutex_);
        finished_ = failed_ = 0;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int finished_ = 0;
    int failed_ = 0;
};

class BenchList : public UsbDBufferList {
public:
    BenchList(const QList<UsbDBuffer *> &buffers, Completion *completion)
        : UsbDBufferList(buffers, nullptr),
          completion_(completion)
    {
    }
    // Counted once the request is gone, buffers and file mappings included: releasing them is
    // part of the daemon's work, and must not overlap with the other side's measurement.
    ~BenchList() override { completion_->done(ok_); }
    void success() override { ok_ = true; }
    void fail() override { ok_ = false; }

private:
    Completion *completion_;
    bool ok_ = false;
};

bool runDaemonPath(UsbDataIn *queue, Completion *completion, const std::vector<Request> &requests)
{
    completion->reset();
    for (const Request &request : requests) {
        QList<UsbDBuffer *> buffers;
        for (const Piece &piece : request) {
            if (piece.path.empty())
                buffers.append(new UsbDBufferMem(piece.memory, 0, quint32(piece.size), 0,
                                                 piece.padding, 0, nullptr));
            else
                buffers.append(new UsbDBufferPath(QString::fromStdString(piece.path), 0,
                                                  quint32(piece.size), 0, piece.padding, 0,
                                                  nullptr));
        }
        queue->send_data(new BenchList(buffers, completion));
    }
    return completion->wait(int(requests.size()));
}

// One shared-memory buffer sent by handle: the daemon imports and maps it per request, as it
// does for a client's handle.
bool runShmPath(UsbDataIn *queue, Completion *completion, quint64 handle, quint32 size)
{
    completion->reset();
    queue->send_data(new BenchList(
        {new UsbDBufferArvoHandle(handle, 0, size, 0, 0, true, 0, nullptr)}, completion));
    return completion->wait(1);
}

bool runRawLoop(int endpoint, const std::vector<Request> &requests, const std::vector<char> &zeros);

// The least a program must do to send memory it was handed by share handle: import it, map it,
// write it, let it go.
bool runRawShm(int endpoint, quint64 handle, quint32 size, const std::vector<char> &zeros)
{
    arvo_hal_mem_t memory = 0;
    if (arvo_hal_mem_import(ArvoMemShare::ion()->handle(), &memory, handle) != 0)
        return false;
    uint8_t *base = nullptr;
    bool ok = arvo_hal_mem_map(memory, &base) == 0;
    if (ok) {
        std::vector<Request> request(1, Request(1));
        request[0][0].memory =
            QByteArray::fromRawData(reinterpret_cast<const char *>(base), int(size));
        request[0][0].size = size;
        ok = runRawLoop(endpoint, request, zeros);
        arvo_hal_mem_unmap(memory);
    }
    arvo_hal_mem_free(memory);
    return ok;
}

// What a program that owns the endpoint would write by hand: map what it must, then write it as
// endpoint_write.h does.
bool runRawLoop(int endpoint, const std::vector<Request> &requests, const std::vector<char> &zeros)
{
    for (const Request &request : requests) {
        std::vector<iovec> segments;
        std::vector<std::pair<void *, size_t>> mappings;
        for (const Piece &piece : request) {
            const void *data = piece.memory.constData();
            if (!piece.path.empty()) {
                const int fd = ::open(piece.path.c_str(), O_RDONLY | O_CLOEXEC);
                struct stat st;
                if (fd < 0 || ::fstat(fd, &st) < 0)
                    return false;
                void *mapping = ::mmap(nullptr, size_t(st.st_size), PROT_READ, MAP_SHARED, fd, 0);
                ::close(fd);
                if (mapping == MAP_FAILED)
                    return false;
                mappings.emplace_back(mapping, size_t(st.st_size));
                data = mapping;
            }
            segments.push_back({const_cast<void *>(data), piece.size});
            if (piece.padding != 0)
                segments.push_back({const_cast<char *>(zeros.data()), piece.padding});
        }

        const bool ok = endpointwrite::writeSegments(endpoint, segments);
        for (const auto &mapping : mappings)
            ::munmap(mapping.first, mapping.second);
        if (!ok)
            return false;
    }
    return true;
}

bool makeFile(const std::string &path, size_t size, int seed)
{
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        return false;
    std::vector<char> block(kMiB);
    bool ok = true;
    for (size_t done = 0; ok && done < size; done += block.size()) {
        std::fill(block.begin(), block.end(), char(seed + int(done / kMiB)));
        ok = ::write(fd, block.data(), block.size()) == ssize_t(block.size());
    }
    ::close(fd);
    return ok;
}

void quietLog(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    // Every successful transfer logs its time; only real trouble is worth showing here.
    if (type == QtCriticalMsg || type == QtFatalMsg || message.contains(QLatin1String("failed")))
        std::fprintf(stderr, "%s\n", qPrintable(message));
}

bool parseOptions(int argc, char **argv, Options *options)
{
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--rounds" && hasValue)
            options->rounds = std::max(1, std::atoi(argv[++i]));
        else if (arg == "--memory-mib" && hasValue)
            options->memoryBufferMiB = size_t(std::max(1, std::atoi(argv[++i])));
        else if (arg == "--file-mib" && hasValue)
            options->fileMiB = size_t(std::max(1, std::atoi(argv[++i])));
        else if (arg == "--shm-mib" && hasValue)
            options->shmMiB = size_t(std::max(1, std::atoi(argv[++i])));
        else if (arg == "--file-dir" && hasValue)
            options->fileDir = argv[++i];
        else
            return false;
    }
    return true;
}

// The figures of one workload: the daemon's path against the raw loop, measured in turns.
struct Comparison {
    const char *label = "";
    const char *note = nullptr;
    size_t bytes = 0;
    bool ok = true;
    std::vector<double> daemonRate, rawRate, rateRatio, daemonCpu, rawCpu, cpuRatio;
};

template <typename DaemonSide, typename RawSide>
Comparison compare(const char *label, size_t bytes, int rounds, DaemonSide daemon, RawSide raw)
{
    Comparison c;
    c.label = label;
    c.bytes = bytes;
    for (int round = 0; c.ok && round < rounds; ++round) {
        Sample samples[2];
        for (int side = 0; c.ok && side < 2; ++side) {
            // A B, then B A: whichever side runs second in a pair pays for what the first
            // left behind (in the emulator and the kernel), so each side takes both places.
            const int which = round % 2 == 0 ? side : 1 - side;
            const double wall0 = now(CLOCK_MONOTONIC);
            const double cpu0 = now(CLOCK_PROCESS_CPUTIME_ID);
            c.ok = which == 0 ? daemon() : raw();
            samples[which].seconds = now(CLOCK_MONOTONIC) - wall0;
            samples[which].cpuSeconds = now(CLOCK_PROCESS_CPUTIME_ID) - cpu0;
        }
        if (!c.ok)
            break;
        const double gib = double(bytes) / kGiB;
        c.daemonRate.push_back(double(bytes) / 1e6 / samples[0].seconds);
        c.rawRate.push_back(double(bytes) / 1e6 / samples[1].seconds);
        c.rateRatio.push_back(c.daemonRate.back() / c.rawRate.back());
        c.daemonCpu.push_back(samples[0].cpuSeconds / gib);
        c.rawCpu.push_back(samples[1].cpuSeconds / gib);
        c.cpuRatio.push_back(c.daemonCpu.back() / c.rawCpu.back());
        std::fprintf(stderr,
                     "%s, round %d: usbd %.0f MB/s %.3f CPU s/GiB, raw %.0f MB/s %.3f CPU s/GiB\n",
                     label, round + 1, c.daemonRate.back(), c.daemonCpu.back(), c.rawRate.back(),
                     c.rawCpu.back());
    }
    return c;
}

} // namespace

int main(int argc, char **argv)
{
    Options options;
    if (!parseOptions(argc, argv, &options)) {
        std::fprintf(stderr,
                     "usage: %s [--rounds N] [--memory-mib M] [--file-mib F] [--shm-mib S] "
                     "[--file-dir DIR]\n",
                     argv[0]);
        return 2;
    }
    qInstallMessageHandler(quietLog);

    usbdtest::FfsFunction function;
    std::string why;
    if (!usbdtest::bringUpFunction(&function, &why)) {
        std::fprintf(stderr, "bench: %s\n", why.c_str());
        return 1;
    }
    if (!usbdtest::emuctl("plug")) {
        std::fprintf(stderr, "bench: cannot plug the emulated host (USBD_EMU_NAME, USBD_EMUCTL)\n");
        return 1;
    }

    // The workload: four memory requests of four buffers and two file requests of two files.
    std::vector<Request> requests;
    size_t totalBytes = 0;
    for (int r = 0; r < 4; ++r) {
        Request request;
        for (int b = 0; b < 4; ++b) {
            Piece piece;
            piece.size = options.memoryBufferMiB * kMiB;
            piece.memory = QByteArray(int(piece.size), char('a' + r * 4 + b));
            piece.padding = options.padding;
            totalBytes += piece.size + piece.padding;
            request.push_back(piece);
        }
        requests.push_back(request);
    }
    std::vector<std::string> files;
    for (int r = 0; r < 2; ++r) {
        Request request;
        for (int f = 0; f < 2; ++f) {
            Piece piece;
            piece.path = options.fileDir + "/usbd-bench-" + std::to_string(getpid()) + "-"
                         + std::to_string(r * 2 + f);
            piece.size = options.fileMiB * kMiB;
            piece.padding = options.padding;
            if (!makeFile(piece.path, piece.size, r * 2 + f)) {
                std::fprintf(stderr, "bench: cannot create %s\n", piece.path.c_str());
                for (const std::string &file : files)
                    ::unlink(file.c_str());
                return 1;
            }
            files.push_back(piece.path);
            totalBytes += piece.size + piece.padding;
            request.push_back(piece);
        }
        requests.push_back(request);
    }
    const std::vector<char> zeros(options.padding, 0);

    Completion completion;
    UsbDataIn queue({new USBConn(function.ep3.get(), true, nullptr)});
    queue.setLinkType(OstrTypes::LinkTypeUsb);
    std::thread worker([&queue] { queue.process(); });

    // The first write waits for the host to enable the function; keep that out of the figures.
    std::vector<Request> warmUp(1, Request(1));
    warmUp[0][0].memory = QByteArray(int(kMiB), 'w');
    warmUp[0][0].size = kMiB;
    bool ok =
        runRawLoop(function.ep3.get(), warmUp, zeros) && runDaemonPath(&queue, &completion, warmUp);

    std::vector<Comparison> comparisons;
    comparisons.push_back(compare(
        "memory and file buffers", totalBytes, options.rounds,
        [&] { return runDaemonPath(&queue, &completion, requests); },
        [&] { return runRawLoop(function.ep3.get(), requests, zeros); }));
    ok = ok && comparisons.back().ok;

    // Shared memory, by physical address (endpoint ioctl) and by virtual address (writev from
    // the daemon's mapping), against a raw loop that imports, maps and writes the same handle.
    const quint32 shmSize = quint32(options.shmMiB * kMiB);
    ArvoMemShare shm(shmSize, false, nullptr);
    if (ok && shm.data()) {
        memset(shm.data(), 0x5A, shmSize);
        const quint64 handle = shm.shareHandle();
        UsbDataIn virtualQueue({new USBConn(function.ep3.get(), false, nullptr)});
        virtualQueue.setLinkType(OstrTypes::LinkTypeUsb);
        std::thread virtualWorker([&virtualQueue] { virtualQueue.process(); });
        comparisons.push_back(compare(
            "shared memory by physical address", shmSize, options.rounds,
            [&] { return runShmPath(&queue, &completion, handle, shmSize); },
            [&] { return runRawShm(function.ep3.get(), handle, shmSize, zeros); }));
        comparisons.back().note =
            "the endpoint takes a physical transfer without the CPU touching the "
            "bytes, as the device's DMA does: usbd's figures are its own cost";
        ok = ok && comparisons.back().ok;
        comparisons.push_back(compare(
            "shared memory by virtual address", shmSize, options.rounds,
            [&] { return runShmPath(&virtualQueue, &completion, handle, shmSize); },
            [&] { return runRawShm(function.ep3.get(), handle, shmSize, zeros); }));
        ok = ok && comparisons.back().ok;
        virtualQueue.quit();
        virtualWorker.join();
    } else if (ok) {
        std::fprintf(stderr,
                     "bench: no shared memory (is /dev/ion there?); skipping its figures\n");
    }

    queue.quit();
    worker.join();
    for (const std::string &file : files)
        ::unlink(file.c_str());
    if (!ok) {
        std::fprintf(stderr, "bench: a transfer failed\n");
        return 1;
    }

    std::printf("%d rounds per figure, the two sides alternating (A B, B A, ...); medians\n",
                options.rounds);
    for (const Comparison &c : comparisons) {
        std::printf("\n%s, %zu bytes per side and round:\n", c.label, c.bytes);
        if (c.note)
            std::printf("  (%s)\n", c.note);
        std::printf("  usbd MB/s: %.0f\n", benchutil::median(c.daemonRate));
        std::printf("  raw writev MB/s: %.0f\n", benchutil::median(c.rawRate));
        std::printf("  throughput ratio usbd/raw: %.3f (goal >= 0.95)\n",
                    benchutil::median(c.rateRatio));
        std::printf("  usbd CPU s/GiB: %.3f\n", benchutil::median(c.daemonCpu));
        std::printf("  raw writev CPU s/GiB: %.3f\n", benchutil::median(c.rawCpu));
        std::printf("  CPU ratio usbd/raw: %.3f (goal <= 1.10)\n", benchutil::median(c.cpuRatio));
    }
    return 0;
}
