// Small requests over the local socket: requests per second and latency percentiles for 64-byte
// memory entries sent by 1 and by 16 concurrent clients, each waiting for its response before
// the next request, into the emulator's discarding ep3. Runs as the command of usbd-emu (see
// scripts/bench-socket), starts usbd itself and plugs the emulated host.
// The baseline, measured in the same run and in turns with the daemon (A B, B A, ...): a minimal
// server of the same protocol in this process, one thread per client, that writes each request's
// data straight to ep3 and answers. Its figures are what the mechanism itself costs.
// Environment: USBD_BIN, USBD_EMUCTL_BIN, USBD_EMU_NAME. Arguments: [SECONDS per run] [CLIENTS...]
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
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
#include <usbd/protocol.h>

#include "../benchutil.h"
#include "../clientwait.h"
#include "../minimal_server.h"

namespace {

using Clock = std::chrono::steady_clock;
using benchutil::median;
using benchutil::percentile;
using usbd::client::Connection;
using usbd::client::Response;
using usbd::client::SendRequest;

constexpr int kEntryBytes = 64;
constexpr char kRawSocketPath[] = "/tmp/usbd-bench-raw-socket";
constexpr auto kWarmUp = std::chrono::milliseconds(300);
constexpr int kRounds = 4;

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

struct Figures {
    double requestsPerSecond = 0;
    std::uint32_t p50 = 0, p90 = 0, p99 = 0, p999 = 0, max = 0;
};

bool measure(const std::string &path, int clients, double seconds, Figures *figures)
{
    std::vector<ClientResult> results(clients);
    std::vector<std::thread> threads;
    const auto measureFrom = Clock::now() + kWarmUp;
    const auto end =
        measureFrom
        + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    for (int i = 0; i < clients; ++i)
        threads.emplace_back(runClient, path, std::uint32_t(i) << 24, measureFrom, end,
                             &results[i]);
    for (std::thread &t : threads)
        t.join();

    std::vector<std::uint32_t> all;
    for (const ClientResult &r : results) {
        if (r.broken || r.failed) {
            std::fprintf(stderr,
                         "socket-bench: a client lost its connection or a request failed\n");
            return false;
        }
        all.insert(all.end(), r.latenciesUs.begin(), r.latenciesUs.end());
    }
    const double elapsed = std::chrono::duration<double>(end - measureFrom).count();
    figures->requestsPerSecond = all.size() / elapsed;
    figures->p50 = percentile(all, 50);
    figures->p90 = percentile(all, 90);
    figures->p99 = percentile(all, 99);
    figures->p999 = percentile(all, 99.9);
    figures->max = all.empty() ? 0 : *std::max_element(all.begin(), all.end());
    return true;
}

// The baseline server: per client, read one request, write its memory entries to ep3, answer.
class RawServer {
public:
    bool start()
    {
        ep3_ = ::open(usbd::kFfsEp3Path, O_RDWR | O_CLOEXEC);
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
        minimalserver::serve(
            client, [this](const std::uint8_t *request, const usbd::SocketRequestEntry &entry) {
                return entry.type != usbd::kSocketEntryMemory
                       || ::write(ep3_, request + entry.offset, entry.size) == ssize_t(entry.size);
            });
        ::close(client);
    }

    int ep3_ = -1;
    int listener_ = -1;
    std::thread acceptor_;
    std::vector<std::thread> clients_; // only touched by the acceptor until it has ended
};

// Runs the daemon and the baseline in turns and prints the medians and the median ratios.
bool compare(int clients, double seconds, int rounds)
{
    std::vector<double> rate[2], p50[2], p99[2], rateRatio, p50Ratio;
    for (int round = 0; round < rounds; ++round) {
        Figures figures[2];
        for (int side = 0; side < 2; ++side) {
            const int which = round % 2 == 0 ? side : 1 - side;
            if (!measure(which == 0 ? usbd::kSocketPath : kRawSocketPath, clients, seconds,
                         &figures[which]))
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
    const std::string usbd = benchutil::env("USBD_BIN");
    const std::string emuctl = benchutil::env("USBD_EMUCTL_BIN");
    const std::string name = benchutil::env("USBD_EMU_NAME");
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

    const pid_t daemon = benchutil::spawn({usbd}, "/tmp/usbd.log");
    Connection control;
    bool ok = benchutil::run({emuctl, "--name", name, "wait-ready", "--timeout", "10"}) == 0
              && benchwait::connectWithin(&control, usbd::kSocketPath, std::chrono::seconds(10))
              && benchutil::run({emuctl, "--name", name, "plug"}) == 0
              && benchwait::waitForLink(&control, std::chrono::seconds(10));
    if (!ok)
        std::fprintf(stderr, "socket-bench: the daemon did not come up with a USB link\n");
    RawServer raw;
    if (ok && !raw.start()) {
        std::fprintf(stderr, "socket-bench: cannot start the baseline server\n");
        ok = false;
    }
    for (std::size_t i = 0; ok && i < clientCounts.size(); ++i)
        ok = compare(clientCounts[i], seconds, kRounds);

    benchutil::stop(daemon);
    return ok ? 0 : 1;
}
