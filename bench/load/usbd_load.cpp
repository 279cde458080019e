// Load on the real daemon while the cable is pulled and put back every second: many socket
// clients and a few D-Bus senders at once. Runs inside the device emulator in the daemon's
// place (see CMakeLists.txt and bench/soak), starts usbd itself and checks:
//   - every socket request is answered exactly once, on its own connection (request ids are
//     unique per client and name the client), or dropped by the link-type rule: left without
//     an answer only when the link changed while it waited;
//   - every D-Bus send is answered (sent or failed), or times out only across a link change;
//   - once the link stays up, every client is served again;
//   - the daemon's resident memory stays within a slack of what it was after the warm-up.
// Prints one line of totals and exits 0 when all of that held, 1 otherwise.
// Environment: USBD_BIN, USBDCTL_BIN, USBD_EMUCTL, USBD_EMU_NAME.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <usbd/client.h>

#include "../benchutil.h"
#include "ffs_function.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using usbd::client::Connection;
using usbd::client::Response;
using usbd::client::SendRequest;

namespace {

constexpr char kDaemonLog[] = "/tmp/usbd-load.log";
constexpr char kDbusFile[] = "/tmp/usbd-load-file.bin";
// Longer than any transfer of these small requests takes, even under a sanitizer: a request
// that has no answer by then was dropped.
constexpr auto kDropWait = 3s;
constexpr auto kPulledFor = 200ms;
constexpr int kIdClientShift = 24; // request id = client << 24 | sequence number

struct Options {
    int seconds = 30;
    int clients = 64;
    long requests = 10000; // per client
    int dbusSenders = 2;
    int pullMs = 1000;
    long rssSlackKib = 1024;
    int warmupSeconds = -1; // default: a third of the run, at most 60 s
    bool rssCheck = true;
};

using benchutil::env;

std::atomic<long> linkChanges{0};
std::atomic<Clock::rep> lastLinkChange{0};
// The daemon learns of a pull or plug from ep0 events some time after usbd-emuctl has queued
// them, and its link type follows later still: a request sent that soon after a change may meet
// the change in the daemon's queue and be dropped by the link-type rule.
constexpr auto kDaemonLag = 500ms;

// Whether a request sent at SENT, when the count of changes stood at BEFORE, may have been
// dropped by a link change.
bool linkMayHaveChanged(long before, Clock::time_point sent)
{
    const Clock::time_point last{Clock::duration(lastLinkChange.load())};
    return linkChanges.load() != before || sent - last < kDaemonLag;
}
std::atomic<bool> stopping{false};
std::atomic<bool> linkRestored{false};
std::mutex errorLock;
std::vector<std::string> errors;

void error(const std::string &what)
{
    std::lock_guard<std::mutex> lock(errorLock);
    if (errors.size() < 20)
        std::cerr << "usbd-load: " << what << "\n";
    errors.push_back(what);
}

struct ClientTotals {
    long sent = 0, failed = 0, dropped = 0, late = 0;
};

void runClient(int index, const Options &options, Clock::time_point start, Clock::time_point end,
               ClientTotals *totals)
{
    Connection connection;
    if (int result = connection.connect(); result != 0) {
        error("client " + std::to_string(index) + " cannot connect: " + std::strerror(-result));
        return;
    }
    const std::string name = "client " + std::to_string(index);
    std::set<std::uint32_t> givenUp; // dropped as far as we know; may still be answered once
    std::uint32_t sequence = 0;
    const auto spacing =
        std::chrono::duration_cast<Clock::duration>(std::chrono::seconds(options.seconds))
        / std::max(1L, options.requests);

    // Waits for the answer to `id`; false when it did not come in time (dropped).
    auto await = [&](std::uint32_t id, Clock::duration wait, bool *sent) {
        const auto deadline = Clock::now() + wait;
        for (;;) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            Response response;
            const int result = connection.receive(&response, int(std::max<long>(0, left.count())));
            if (result == -ETIMEDOUT)
                return false;
            if (result != 0) {
                error(name + ": connection lost: " + std::strerror(-result));
                stopping = true;
                return false;
            }
            if (response.requestId >> kIdClientShift != std::uint32_t(index)) {
                error(name + " got the response to request " + std::to_string(response.requestId)
                      + " of another connection");
                continue;
            }
            if (response.requestId == id) {
                *sent = response.sent();
                return true;
            }
            if (givenUp.erase(response.requestId) == 1) {
                ++totals->late;
                continue;
            }
            error(name + " got a response to request " + std::to_string(response.requestId)
                  + " that it was not waiting for (answered twice?)");
        }
    };

    const char payload[16] = "usbd load test.";
    while (!stopping && long(sequence) < options.requests) {
        const auto due = start + spacing * sequence;
        if (due >= end)
            break;
        std::this_thread::sleep_until(due);
        if (Clock::now() >= end)
            break;
        const std::uint32_t id = std::uint32_t(index) << kIdClientShift | sequence++;
        const long changesBefore = linkChanges.load();
        const auto sentAt = Clock::now();
        if (int result =
                connection.send(SendRequest(id).addMemory(payload, sizeof payload).encode());
            result != 0) {
            error(name + ": send failed: " + std::strerror(-result));
            return;
        }
        bool sent = false;
        if (await(id, kDropWait, &sent)) {
            ++(sent ? totals->sent : totals->failed);
            continue;
        }
        if (stopping)
            return;
        if (!linkMayHaveChanged(changesBefore, sentAt))
            error(name + ": request " + std::to_string(id)
                  + " unanswered although the link stayed as it was");
        givenUp.insert(id);
        ++totals->dropped;
    }

    // Once the link stays up, the client must be served again; until the daemon has seen the
    // link come back its requests may still fail. Late answers may still arrive meanwhile.
    while (!stopping && !linkRestored)
        std::this_thread::sleep_for(20ms);
    for (const auto until = Clock::now() + 15s; !stopping && Clock::now() < until;) {
        const std::uint32_t id = std::uint32_t(index) << kIdClientShift | sequence++;
        bool sent = false;
        if (connection.send(SendRequest(id).encode()) != 0)
            break;
        if (await(id, kDropWait, &sent)) {
            if (sent)
                return;
            std::this_thread::sleep_for(100ms);
        } else {
            givenUp.insert(id);
        }
    }
    if (!stopping)
        error(name + ": not served after the link was restored for good");
}

struct DbusTotals {
    std::atomic<long> sent{0}, failed{0}, dropped{0};
};

// D-Bus sends through usbdctl, alternating send-data and send-file.
void runDbusSender(int index, Clock::time_point end, DbusTotals *totals)
{
    const std::string usbdctl = env("USBDCTL_BIN");
    for (long n = 0; !stopping && Clock::now() < end; ++n) {
        const std::string command = usbdctl
                                    + (n % 2 ? " send-file " + std::string(kDbusFile)
                                             : " send-data dbus-sender-" + std::to_string(index))
                                    + " --timeout 3 >/dev/null 2>&1";
        const long changesBefore = linkChanges.load();
        const auto sentAt = Clock::now();
        const int status = std::system(command.c_str());
        const int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        switch (code) {
        case 0:
            ++totals->sent;
            break;
        case 5:
            ++totals->failed;
            break;
        case 7: // no answer: dropped when the link changed
            ++totals->dropped;
            if (!linkMayHaveChanged(changesBefore, sentAt))
                error("a D-Bus send had no answer although the link stayed as it was");
            break;
        default:
            error("usbdctl ended with status " + std::to_string(code));
            break;
        }
    }
}

void pullLink(const Options &options, Clock::time_point end)
{
    auto next = Clock::now();
    while (!stopping) {
        next += std::chrono::milliseconds(options.pullMs);
        std::this_thread::sleep_until(next - kPulledFor);
        if (Clock::now() >= end)
            break;
        lastLinkChange = Clock::now().time_since_epoch().count();
        ++linkChanges;
        if (!usbdtest::emuctl("unplug"))
            error("usbd-emuctl unplug failed");
        std::this_thread::sleep_for(kPulledFor);
        lastLinkChange = Clock::now().time_since_epoch().count();
        ++linkChanges;
        if (!usbdtest::emuctl("plug"))
            error("usbd-emuctl plug failed");
    }
}

long rssKib(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0)
            return std::atol(line.c_str() + 6);
    }
    return -1;
}

bool parse(int argc, char **argv, Options *options)
{
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--no-rss-check") {
            options->rssCheck = false;
            continue;
        }
        if (i + 1 >= argc)
            return false;
        const long value = std::atol(argv[++i]);
        if (arg == "--seconds")
            options->seconds = int(value);
        else if (arg == "--clients")
            options->clients = int(value);
        else if (arg == "--requests")
            options->requests = value;
        else if (arg == "--dbus-senders")
            options->dbusSenders = int(value);
        else if (arg == "--pull-ms")
            options->pullMs = int(value);
        else if (arg == "--rss-slack-kib")
            options->rssSlackKib = value;
        else if (arg == "--warmup-seconds")
            options->warmupSeconds = int(value);
        else
            return false;
    }
    if (options->warmupSeconds < 0)
        options->warmupSeconds = std::min(60, options->seconds / 3);
    return options->seconds > 0 && options->clients > 0 && options->clients < 256
           && options->requests > 0 && options->requests < (1L << kIdClientShift) - 1000
           && options->pullMs > 2 * int(kPulledFor.count())
           && options->warmupSeconds < options->seconds;
}

} // namespace

int main(int argc, char **argv)
{
    Options options;
    if (!parse(argc, argv, &options)) {
        std::cerr << "usage: usbd_load [--seconds S] [--clients N] [--requests N per client] "
                     "[--dbus-senders N] [--pull-ms MS] [--rss-slack-kib K] [--warmup-seconds S] "
                     "[--no-rss-check]\n";
        return 2;
    }
    if (env("USBD_BIN").empty() || env("USBDCTL_BIN").empty() || env("USBD_EMU_NAME").empty()) {
        std::cerr << "usbd_load: runs inside usbd-emu with USBD_BIN, USBDCTL_BIN, USBD_EMUCTL and "
                     "USBD_EMU_NAME\n";
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    {
        std::ofstream file(kDbusFile, std::ios::binary);
        file << std::string(4096, 'f');
    }

    const pid_t daemon = benchutil::spawn({env("USBD_BIN")}, kDaemonLog);
    auto finish = [&](int code) {
        benchutil::stop(daemon);
        unlink(kDbusFile);
        if (code != 0)
            std::cerr << "---- daemon log (tail) ----\n"
                      << usbdtest::readFile(kDaemonLog)
                             .substr(std::max<long>(0, long(usbdtest::readFile(kDaemonLog).size())
                                                           - 4000))
                      << "----\n";
        return code;
    };

    if (!usbdtest::emuctl("wait-ready --timeout 15") || !usbdtest::emuctl("plug")) {
        std::cerr << "usbd_load: the emulated function did not come up\n";
        return finish(1);
    }
    // Linked once an empty request is sent rather than failed.
    bool linked = false;
    for (const auto until = Clock::now() + 20s; !linked && Clock::now() < until;
         std::this_thread::sleep_for(50ms)) {
        Connection probe;
        Response response;
        linked = probe.connect() == 0 && probe.send(SendRequest(0).encode()) == 0
                 && probe.receive(&response, 2000) == 0 && response.sent();
    }
    if (!linked) {
        std::cerr << "usbd_load: the daemon never served a request on the USB link\n";
        return finish(1);
    }

    const auto start = Clock::now();
    const auto end = start + std::chrono::seconds(options.seconds);
    std::vector<ClientTotals> clientTotals(std::size_t(options.clients));
    DbusTotals dbusTotals;
    std::vector<std::thread> threads;
    for (int i = 0; i < options.clients; ++i)
        threads.emplace_back(runClient, i + 1, std::cref(options), start, end,
                             &clientTotals[std::size_t(i)]);
    for (int i = 0; i < options.dbusSenders; ++i)
        threads.emplace_back(runDbusSender, i, end, &dbusTotals);
    std::thread puller(pullLink, std::cref(options), end);

    long rssBase = -1, rssMax = -1, rssFirst = rssKib(daemon);
    const auto warm = start + std::chrono::seconds(options.warmupSeconds);
    while (Clock::now() < end && !stopping) {
        std::this_thread::sleep_for(500ms);
        if (waitpid(daemon, nullptr, WNOHANG) != 0) {
            error("the daemon ended");
            stopping = true;
            break;
        }
        const long rss = rssKib(daemon);
        if (Clock::now() < warm)
            continue;
        if (rssBase < 0)
            rssBase = rss;
        rssMax = std::max(rssMax, rss);
    }
    puller.join();
    // Whatever the puller did last, the link is up from here on.
    if (!usbdtest::emuctl("plug"))
        error("usbd-emuctl plug failed");
    linkRestored = true;
    for (std::thread &thread : threads)
        thread.join();

    ClientTotals all;
    for (const ClientTotals &t : clientTotals) {
        all.sent += t.sent;
        all.failed += t.failed;
        all.dropped += t.dropped;
        all.late += t.late;
    }
    const long rssEnd = rssKib(daemon);
    std::printf(
        "usbd_load: %d s, %d clients: %ld sent, %ld failed, %ld dropped (%ld answered late); "
        "D-Bus: %ld sent, %ld failed, %ld dropped; %ld link changes; daemon RSS %ld KiB at "
        "start, %ld after %d s warm-up, at most %ld after, %ld at the end\n",
        options.seconds, options.clients, all.sent, all.failed, all.dropped, all.late,
        dbusTotals.sent.load(), dbusTotals.failed.load(), dbusTotals.dropped.load(),
        linkChanges.load(), rssFirst, rssBase, options.warmupSeconds, rssMax, rssEnd);
    if (all.sent == 0)
        error("no request was sent at all");
    if (options.rssCheck && rssBase > 0 && rssMax - rssBase > options.rssSlackKib)
        error("daemon RSS grew by " + std::to_string(rssMax - rssBase)
              + " KiB after the warm-up (slack " + std::to_string(options.rssSlackKib) + " KiB)");
    if (waitpid(daemon, nullptr, WNOHANG) != 0)
        error("the daemon is gone");
    std::fflush(stdout);
    return finish(errors.empty() ? 0 : 1);
}
