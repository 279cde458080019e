// Small requests over the local socket: requests per second and latency percentiles for 64-byte
// memory entries sent by 1 and by 16 concurrent clients, each waiting for its response before
// the next request, into the emulator's discarding ep3. Runs as the command of usbd-emu (see
// scripts/bench-socket), starts usbd itself and plugs the emulated host.
// The baseline, measured in the same run and in turns with the daemon (A B, B A, ...): a minimal
// server of the same protocol in this process, one thread per client, that writes each request's
// data straight to ep3 and answers. Its figures are what the mechanism itself costs.
// Environment: USBD_BIN, USBD_EMUCTL_BIN, USBD_EMU_NAME. Arguments: [SECONDS per run] [CLIENTS...]
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <usbd/client.h>

#include "../clientwait.h"

namespace {

using Clock = std::chrono::steady_clock;
using usbd::client::Connection;
using usbd::client::Response;
using usbd::client::SendRequest;

constexpr int kEntryBytes = 64;
constexpr char kRawSocketPath[] = "/tmp/usbd-bench-raw-socket";
constexpr char kEp3Path[] = "/dev/usb-ffs/bulk/ep3";
constexpr auto kWarmUp = std::chrono::milliseconds(300);
constexpr int kRounds = 4;

std::string env(const char *name)
{
    const char *value = std::getenv(name);
    return value ? value : "";
}

int run(const std::vector<std::string> &argv)
{
    const pid_t pid = fork();
    if (pid == 0) {
        // Their progress lines ("ready") are of no interest here; errors still show.
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(null, STDOUT_FILENO);
        std::vector<char *> args;
        for (const std::string &a : argv)
            args.push_back(const_cast<char *>(a.c_str()));
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

pid_t startDaemon(const std::string &usbd)
{
    const pid_t pid = fork();
    if (pid == 0) {
        const int log = open("/tmp/usbd.log", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        dup2(log, STDOUT_FILENO);
        dup2(log, STDERR_FILENO);
        execl(usbd.c_str(), usbd.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    return pid;
}

struct ClientResult {
    std::vector<std::uint32_t> latenciesUs;
    long failed = 0;
    bool broken = false;
};

void runClient(const std::string &path, std::uint32_t firstId, Clock::time_point measureFrom,
               Clock::time_point end, ClientResult *result)
{
    Connection connection;
    if (connection.connect(path) != 0) {
        result->broken = true;
        return;
    }
    char data[kEntryBytes];
    std::memset(data, 0x5A, sizeof data);
    std::vector<std::uint8_t> request;
    for (std::uint32_t id = firstId;; ++id) {
        const auto start = Clock::now();
        if (start >= end)
            break;
        SendRequest(id).addMemory(data, kEntryBytes).encode(&request);
        Response response;
        if (connection.send(request) != 0 || connection.receive(&response, 5000) != 0
            || response.requestId != id) {
            result->broken = true;
            return;
        }
        const auto done = Clock::now();
        if (start < measureFrom)
            continue;
        if (!response.sent())
            ++result->failed;
        result->latenciesUs.push_back(std::uint32_t(
            std::chrono::duration_cast<std::chrono::microseconds>(done - start).count()));
    }
}

std::uint32_t percentile(const std::vector<std::uint32_t> &sorted, double p)
{
    if (sorted.empty())
        return 0;
    const std::size_t index = std::min(sorted.size() - 1, std::size_t(p / 100.0 * sorted.size()));
    return sorted[index];
}

struct Figures {
    double requestsPerSecond = 0;
    std::uint32_t p50 = 0, p90 = 0, p99 = 0, p999 = 0, max = 0;
};

bool measure(const std::string &path, int clients, double seconds, Figures *figures)
{
    std::vector<ClientResult> results(clients);
    std::vector<std::thread> threads;
    const auto measureFrom = Clock::now() + kWarmUp;
    const auto end = measureFrom + std::chrono::duration_cast<Clock::duration>(
                                       std::chrono::duration<double>(seconds));
    for (int i = 0; i < clients; ++i)
        threads.emplace_back(runClient, path, std::uint32_t(i) << 24, measureFrom, end, &results[i]);
    for (std::thread &t : threads)
        t.join();

    std::vector<std::uint32_t> all;
    for (const ClientResult &r : results) {
        if (r.broken || r.failed) {
            std::fprintf(stderr, "socket-bench: a client lost its connection or a request failed\n");
            return false;
        }
        all.insert(all.end(), r.latenciesUs.begin(), r.latenciesUs.end());
    }
    std::sort(all.begin(), all.end());
    const double elapsed = std::chrono::duration<double>(end - measureFrom).count();
    figures->requestsPerSecond = all.size() / elapsed;
    figures->p50 = percentile(all, 50);
    figures->p90 = percentile(all, 90);
    figures->p99 = percentile(all, 99);
    figures->p999 = percentile(all, 99.9);
    figures->max = all.empty() ? 0 : all.back();
    return true;
}

// The baseline server: per client, read one request, write its memory entries to ep3, answer.
class RawServer {
public:
    bool start()
    {
        ep3_ = ::open(kEp3Path, O_RDWR | O_CLOEXEC);
        listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, kRawSocketPath, sizeof address.sun_path - 1);
        ::unlink(kRawSocketPath);
        if (ep3_ < 0 || listener_ < 0
            || ::bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof address) < 0
            || ::listen(listener_, 32) < 0)
            return false;
        acceptor_ = std::thread([this] { acceptLoop(); });
        return true;
    }
    ~RawServer()
    {
        if (listener_ >= 0) {
            ::shutdown(listener_, SHUT_RDWR);
            ::close(listener_);
        }
        if (acceptor_.joinable())
            acceptor_.join();
        for (std::thread &t : clients_)
            t.join();
        ::unlink(kRawSocketPath);
        if (ep3_ >= 0)
            ::close(ep3_);
    }

private:
    void acceptLoop()
    {
        for (;;) {
            const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (client < 0)
                return;
            clients_.emplace_back([this, client] { serve(client); });
        }
    }
    void serve(int client)
    {
        std::uint8_t request[4096];
        for (;;) {
            const ssize_t n = ::read(client, request, sizeof request);
            if (n < 8)
                break;
            std::uint32_t id, type, size, offset;
            std::memcpy(&id, request + 4, 4);
            std::int32_t status = 0;
            for (std::size_t at = 8; at + 4 <= std::size_t(n); at += 28) {
                std::memcpy(&type, request + at, 4);
                if (type == 0 || at + 28 > std::size_t(n))
                    break;
                std::memcpy(&size, request + at + 4, 4);
                std::memcpy(&offset, request + at + 8, 4);
                if (type == 1 && std::uint64_t(offset) + size <= std::uint64_t(n)
                    && ::write(ep3_, request + offset, size) != ssize_t(size))
                    status = -1;
            }
            std::uint8_t response[8];
            std::memcpy(response, &id, 4);
            std::memcpy(response + 4, &status, 4);
            if (::send(client, response, sizeof response, MSG_NOSIGNAL) != 8)
                break;
        }
        ::close(client);
    }

    int ep3_ = -1;
    int listener_ = -1;
    std::thread acceptor_;
    std::vector<std::thread> clients_; // only touched by the acceptor until it has ended
};

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// Runs the daemon and the baseline in turns and prints the medians and the median ratios.
bool compare(int clients, double seconds, int rounds)
{
    std::vector<double> rate[2], p50[2], p99[2], rateRatio, p50Ratio;
    for (int round = 0; round < rounds; ++round) {
        Figures figures[2];
        for (int side = 0; side < 2; ++side) {
            const int which = round % 2 == 0 ? side : 1 - side;
            if (!measure(which == 0 ? usbd::client::kDefaultSocketPath : kRawSocketPath, clients,
                         seconds, &figures[which]))
                return false;
        }
        for (int which = 0; which < 2; ++which) {
            rate[which].push_back(figures[which].requestsPerSecond);
            p50[which].push_back(figures[which].p50);
            p99[which].push_back(figures[which].p99);
        }
        rateRatio.push_back(figures[0].requestsPerSecond / figures[1].requestsPerSecond);
        p50Ratio.push_back(double(figures[0].p50) / std::max<std::uint32_t>(1, figures[1].p50));
        std::fprintf(stderr, "x%d round %d: usbd %.0f req/s p50 %u us, raw %.0f req/s p50 %u us\n",
                     clients, round + 1, figures[0].requestsPerSecond, figures[0].p50,
                     figures[1].requestsPerSecond, figures[1].p50);
    }
    std::printf("socket %dB x%d clients: usbd requests/s %.0f, latency us p50 %.0f p99 %.0f\n",
                kEntryBytes, clients, median(rate[0]), median(p50[0]), median(p99[0]));
    std::printf("socket %dB x%d clients: raw requests/s %.0f, latency us p50 %.0f p99 %.0f\n",
                kEntryBytes, clients, median(rate[1]), median(p50[1]), median(p99[1]));
    std::printf("socket %dB x%d clients: ratio usbd/raw requests/s %.3f, p50 latency %.2f\n",
                kEntryBytes, clients, median(rateRatio), median(p50Ratio));
    std::fflush(stdout);
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    const std::string usbd = env("USBD_BIN");
    const std::string emuctl = env("USBD_EMUCTL_BIN");
    const std::string name = env("USBD_EMU_NAME");
    if (usbd.empty() || emuctl.empty() || name.empty()) {
        std::fprintf(stderr, "socket-bench: run under usbd-emu with USBD_BIN, USBD_EMUCTL_BIN and "
                             "USBD_EMU_NAME set (scripts/bench-socket does)\n");
        return 2;
    }
    const double seconds = argc > 1 ? std::atof(argv[1]) : 1.5;
    std::vector<int> clientCounts;
    for (int i = 2; i < argc; ++i)
        clientCounts.push_back(std::max(1, std::atoi(argv[i])));
    if (clientCounts.empty())
        clientCounts = {1, 16};

    const pid_t daemon = startDaemon(usbd);
    Connection control;
    bool ok = run({emuctl, "--name", name, "wait-ready", "--timeout", "10"}) == 0
              && benchwait::connectWithin(&control, usbd::client::kDefaultSocketPath, std::chrono::seconds(10))
              && run({emuctl, "--name", name, "plug"}) == 0 && benchwait::waitForLink(&control, std::chrono::seconds(10));
    if (!ok)
        std::fprintf(stderr, "socket-bench: the daemon did not come up with a USB link\n");
    RawServer raw;
    if (ok && !raw.start()) {
        std::fprintf(stderr, "socket-bench: cannot start the baseline server\n");
        ok = false;
    }
    for (std::size_t i = 0; ok && i < clientCounts.size(); ++i)
        ok = compare(clientCounts[i], seconds, kRounds);

    kill(daemon, SIGTERM);
    waitpid(daemon, nullptr, 0);
    return ok ? 0 : 1;
}
