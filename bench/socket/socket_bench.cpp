// Small requests over the local socket: requests per second and latency percentiles for 64-byte
// memory entries sent by 1 and by 16 concurrent clients, each waiting for its response before
// the next request, into the emulator's discarding ep3. Runs as the command of usbd-emu (see
// scripts/bench-socket), starts usbd itself and plugs the emulated host.
// Environment: USBD_BIN, USBD_EMUCTL_BIN, USBD_EMU_NAME. Arguments: [SECONDS per run] [CLIENTS...]
#include <fcntl.h>
#include <signal.h>
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

namespace {

using Clock = std::chrono::steady_clock;
using usbd::client::Connection;
using usbd::client::Response;
using usbd::client::SendRequest;

constexpr int kEntryBytes = 64;
constexpr auto kWarmUp = std::chrono::milliseconds(300);

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

bool connectWithin(Connection *connection, std::chrono::seconds limit)
{
    for (auto end = Clock::now() + limit; Clock::now() < end;) {
        if (connection->connect() == 0)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

// Empty requests fail until the daemon has the USB link.
bool waitForLink(Connection *connection)
{
    for (auto end = Clock::now() + std::chrono::seconds(10); Clock::now() < end;) {
        Response response;
        if (connection->send(SendRequest(0).encode()) != 0
            || connection->receive(&response, 5000) != 0)
            return false;
        if (response.sent())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

struct ClientResult {
    std::vector<std::uint32_t> latenciesUs;
    long failed = 0;
    bool broken = false;
};

void runClient(std::uint32_t firstId, Clock::time_point measureFrom, Clock::time_point end,
               ClientResult *result)
{
    Connection connection;
    if (connection.connect() != 0) {
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

bool measure(int clients, double seconds)
{
    std::vector<ClientResult> results(clients);
    std::vector<std::thread> threads;
    const auto measureFrom = Clock::now() + kWarmUp;
    const auto end = measureFrom + std::chrono::duration_cast<Clock::duration>(
                                       std::chrono::duration<double>(seconds));
    for (int i = 0; i < clients; ++i)
        threads.emplace_back(runClient, std::uint32_t(i) << 24, measureFrom, end, &results[i]);
    for (std::thread &t : threads)
        t.join();

    std::vector<std::uint32_t> all;
    long failed = 0;
    for (const ClientResult &r : results) {
        if (r.broken) {
            std::fprintf(stderr, "socket-bench: a client lost its connection or a response\n");
            return false;
        }
        all.insert(all.end(), r.latenciesUs.begin(), r.latenciesUs.end());
        failed += r.failed;
    }
    std::sort(all.begin(), all.end());
    const double elapsed = std::chrono::duration<double>(end - measureFrom).count();
    std::printf("socket %dB x%d clients: requests/s %.0f\n", kEntryBytes, clients,
                all.size() / elapsed);
    std::printf("socket %dB x%d clients: latency us p50 %u p90 %u p99 %u p99.9 %u max %u\n",
                kEntryBytes, clients, percentile(all, 50), percentile(all, 90), percentile(all, 99),
                percentile(all, 99.9), all.empty() ? 0 : all.back());
    if (failed)
        std::printf("socket %dB x%d clients: %ld requests failed\n", kEntryBytes, clients, failed);
    std::fflush(stdout);
    return failed == 0;
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
    const double seconds = argc > 1 ? std::atof(argv[1]) : 3.0;
    std::vector<int> clientCounts;
    for (int i = 2; i < argc; ++i)
        clientCounts.push_back(std::max(1, std::atoi(argv[i])));
    if (clientCounts.empty())
        clientCounts = {1, 16};

    const pid_t daemon = startDaemon(usbd);
    Connection control;
    bool ok = run({emuctl, "--name", name, "wait-ready", "--timeout", "10"}) == 0
              && connectWithin(&control, std::chrono::seconds(10))
              && run({emuctl, "--name", name, "plug"}) == 0 && waitForLink(&control);
    if (!ok)
        std::fprintf(stderr, "socket-bench: the daemon did not come up with a USB link\n");
    for (std::size_t i = 0; ok && i < clientCounts.size(); ++i)
        ok = measure(clientCounts[i], seconds);

    kill(daemon, SIGTERM);
    waitpid(daemon, nullptr, 0);
    return ok ? 0 : 1;
}
