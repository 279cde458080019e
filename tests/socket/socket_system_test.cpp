// The socket front end of the real daemon, on the device emulator. Each test runs in a fresh
// emulator (see CMakeLists.txt): this binary is the emulator's command, starts usbd itself, and
// drives the emulated host with usbd-emuctl.
// Environment: USBD_BIN, USBD_EMUCTL, USBD_EMU_NAME.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <linux/sockios.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include <usbd/client.h>

#include "arvo.h"
#include "arvomemshare.h"
#include "ffs_function.h"

using namespace std::chrono_literals;
using usbd::client::Connection;
using usbd::client::Response;
using usbd::client::SendRequest;
using Bytes = std::vector<std::uint8_t>;
using usbdtest::readFile;

namespace {

constexpr char kDaemonLog[] = "/tmp/usbd.log";
constexpr char kCapture[] = "/tmp/ep3.capture";
constexpr int kResponseTimeoutMs = 5000;

std::string env(const char *name)
{
    const char *value = std::getenv(name);
    return value ? value : "";
}

int countOf(const std::string &text, const std::string &what)
{
    int n = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

// Polls `done` until it returns true or `limit` has passed.
template <class Predicate>
bool waitUntil(Predicate done, std::chrono::milliseconds limit)
{
    for (const auto end = std::chrono::steady_clock::now() + limit;;) {
        if (done())
            return true;
        if (std::chrono::steady_clock::now() >= end)
            return false;
        std::this_thread::sleep_for(10ms);
    }
}

class SocketSystem : public ::testing::Test {
protected:
    void SetUp() override
    {
        usbd_ = env("USBD_BIN");
        if (usbd_.empty() || env("USBD_EMU_NAME").empty())
            GTEST_SKIP() << "needs usbd-emu and USBD_BIN, USBD_EMUCTL, USBD_EMU_NAME";
    }

    void TearDown() override
    {
        if (daemon_ > 0) {
            kill(daemon_, SIGTERM);
            waitpid(daemon_, nullptr, 0);
        }
        if (HasFailure())
            std::cerr << "---- daemon log ----\n" << readFile(kDaemonLog) << "----\n";
    }

    // Starts usbd with its output in kDaemonLog.
    void startDaemon()
    {
        daemon_ = fork();
        ASSERT_GE(daemon_, 0);
        if (daemon_ == 0) {
            const int log = open(kDaemonLog, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
            dup2(log, STDOUT_FILENO);
            dup2(log, STDERR_FILENO);
            execl(usbd_.c_str(), usbd_.c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
    }

    bool daemonRunning() { return daemon_ > 0 && waitpid(daemon_, nullptr, WNOHANG) == 0; }

    // Waits until the daemon's log holds `count` lines containing `text`.
    bool waitForLog(const std::string &text, int count = 1)
    {
        return waitUntil([&] { return countOf(readFile(kDaemonLog), text) >= count; }, 5s);
    }

    void connect(Connection *connection)
    {
        int result = -1;
        if (!waitUntil([&] { return (result = connection->connect()) == 0; }, 10s))
            FAIL() << "cannot connect to the daemon: " << strerror(-result);
    }

    // Starts the daemon, captures ep3 and plugs the host; returns once the daemon has the USB
    // link, that is once an empty request is sent rather than failed for want of a link.
    void startLinked(Connection *connection)
    {
        ASSERT_NO_FATAL_FAILURE(startDaemon());
        ASSERT_TRUE(usbdtest::emuctl("wait-ready --timeout 10"));
        ASSERT_TRUE(usbdtest::emuctl(std::string("capture ") + kCapture));
        ASSERT_NO_FATAL_FAILURE(connect(connection));
        ASSERT_TRUE(usbdtest::emuctl("plug"));
        const bool linked = waitUntil(
            [&] {
                Response response;
                return connection->send(SendRequest(0).encode()) == 0
                       && connection->receive(&response, kResponseTimeoutMs) == 0
                       && response.sent();
            },
            10s);
        ASSERT_TRUE(linked) << "the daemon never saw the USB link";
    }

    // Waits until the daemon has read everything sent on the connection, so that the next
    // request cannot arrive in the same read.
    static void waitUntilRead(const Connection &connection)
    {
        // Bytes on a Unix stream socket count against the sender until the reader takes them.
        const bool read = waitUntil(
            [&] {
                int unread = -1;
                return ioctl(connection.fd(), SIOCOUTQ, &unread) == 0 && unread == 0;
            },
            5s);
        ASSERT_TRUE(read) << "the daemon does not read its connection";
    }

    static Response exchange(Connection *connection, const Bytes &request)
    {
        Response response{0xDEADBEEF, 99};
        EXPECT_EQ(connection->send(request), 0);
        EXPECT_EQ(connection->receive(&response, kResponseTimeoutMs), 0);
        return response;
    }

    static void expectNoResponse(Connection *connection)
    {
        Response response;
        EXPECT_EQ(connection->receive(&response, 200), -ETIMEDOUT)
            << "unexpected response to request " << response.requestId;
    }

    std::string usbd_;
    pid_t daemon_ = -1;
};

} // namespace

TEST_F(SocketSystem, RequestsReachTheHostInEntryOrderAndAreAnswered)
{
    Connection client;
    ASSERT_NO_FATAL_FAILURE(startLinked(&client));

    // The 45-byte request of the protocol's description: 5 bytes on ep3, then its response.
    SendRequest example(42);
    example.addMemory("hello", 5);
    ASSERT_EQ(example.encodedSize(), 45u);
    ASSERT_EQ(client.send(example.encode()), 0);
    Response response;
    ASSERT_EQ(client.receive(&response, kResponseTimeoutMs), 0);
    EXPECT_EQ(response.requestId, 42u);
    EXPECT_EQ(response.status, 0);
    EXPECT_EQ(readFile(kCapture), "hello");

    // An empty request is answered too, and sends nothing.
    response = exchange(&client, SendRequest(43).encode());
    EXPECT_EQ(response.requestId, 43u);
    EXPECT_EQ(response.status, 0);
    EXPECT_EQ(readFile(kCapture), "hello");

    // Memory entries keep their order around an entry of unknown type; padding follows its
    // element.
    SendRequest mixed(44);
    mixed.addMemory("first-", 6, 0, 3).addOther(3).addMemory("second", 6);
    response = exchange(&client, mixed.encode());
    EXPECT_EQ(response.requestId, 44u);
    EXPECT_EQ(response.status, 0);
    EXPECT_EQ(readFile(kCapture), std::string("hellofirst-\0\0\0second", 20));
}

TEST_F(SocketSystem, MemoryAndHandleEntriesKeepTheirOrder)
{
    Connection client;
    ASSERT_NO_FATAL_FAILURE(startLinked(&client));

    // Shared memory held by this process, which the daemon imports by its handle.
    ASSERT_TRUE(arvo::initialise());
    ArvoMemShare shared(4096, false, nullptr);
    shared.map();
    ASSERT_NE(shared.data(), nullptr);
    std::memcpy(shared.data(), "0123456789", 10);
    shared.sync();

    SendRequest mixed(7);
    mixed.addMemory("<", 1).addHandle(shared.shareHandle(), 2, 6).addOther(3).addMemory(">", 1);
    const Response response = exchange(&client, mixed.encode());
    EXPECT_EQ(response.requestId, 7u);
    EXPECT_EQ(response.status, 0);
    EXPECT_EQ(readFile(kCapture), "<234567>");
}

TEST_F(SocketSystem, InterruptFailsTheStalledTransferAndTheNextRequestSucceeds)
{
    Connection client;
    Connection interrupter;
    ASSERT_NO_FATAL_FAILURE(startLinked(&client));
    ASSERT_NO_FATAL_FAILURE(connect(&interrupter));

    ASSERT_TRUE(usbdtest::emuctl("stall"));
    const std::string data(1000, 'x');
    SendRequest stalled(1);
    stalled.addMemory(data.data(), std::uint32_t(data.size()));
    ASSERT_EQ(client.send(stalled.encode()), 0);

    // The worker may not have reached its write when an interrupt arrives, and a signal to an
    // idle worker changes nothing: interrupt until the transfer gives up.
    Response response;
    int result = -ETIMEDOUT;
    for (int i = 0; i < 25 && result == -ETIMEDOUT; ++i) {
        ASSERT_EQ(interrupter.send(usbd::client::encodeInterrupt()), 0);
        result = client.receive(&response, 200);
    }
    ASSERT_EQ(result, 0);
    EXPECT_EQ(response.requestId, 1u);
    EXPECT_EQ(response.status, -1);

    ASSERT_TRUE(usbdtest::emuctl("release"));
    SendRequest next(2);
    next.addMemory("after", 5);
    response = exchange(&client, next.encode());
    EXPECT_EQ(response.requestId, 2u);
    EXPECT_EQ(response.status, 0);
    // Interrupts are never answered.
    expectNoResponse(&interrupter);
    expectNoResponse(&client);
    const std::string capture = readFile(kCapture);
    ASSERT_GE(capture.size(), 5u);
    EXPECT_EQ(capture.substr(capture.size() - 5), "after");
}

TEST_F(SocketSystem, BadRequestsAreDroppedAndTheConnectionStaysUsable)
{
    Connection client;
    ASSERT_NO_FATAL_FAILURE(startLinked(&client));
    SendRequest good(10);
    good.addMemory("ok", 2);

    // A 7-byte read.
    Bytes shortRequest = SendRequest(11).encode();
    shortRequest.resize(7);
    ASSERT_EQ(client.send(shortRequest), 0);
    ASSERT_TRUE(waitForLog("not enough data for request"));
    EXPECT_EQ(exchange(&client, good.encode()).requestId, 10u);

    // Memory data past the bytes of the read: dropped like a short read.
    Bytes pastEnd = SendRequest(12).addMemory("abc", 3).encode();
    pastEnd.resize(pastEnd.size() - 1);
    ASSERT_EQ(client.send(pastEnd), 0);
    ASSERT_NO_FATAL_FAILURE(waitUntilRead(client));
    EXPECT_EQ(exchange(&client, good.encode()).requestId, 10u);

    // A padding of 2 GiB or more (negative as the D-Bus interface's signed count) is refused by
    // the transport before any byte of its request goes out; the failure is answered.
    SendRequest hugePadding(14);
    hugePadding.addMemory("pad", 3, 0, 0x80000000u);
    const Response refused = exchange(&client, hugePadding.encode());
    EXPECT_EQ(refused.requestId, 14u);
    EXPECT_EQ(refused.status, -1);

    // An unknown kind is ignored without a word.
    Bytes unknownKind = SendRequest(13).addMemory("no", 2).encode();
    unknownKind[0] = 3;
    ASSERT_EQ(client.send(unknownKind), 0);
    ASSERT_NO_FATAL_FAILURE(waitUntilRead(client));
    EXPECT_EQ(exchange(&client, good.encode()).requestId, 10u);
    expectNoResponse(&client);

    const std::string log = readFile(kDaemonLog);
    EXPECT_EQ(countOf(log, "not enough data for request"), 1);
    EXPECT_EQ(countOf(log, "failed to map buffer"), 1);
    EXPECT_EQ(readFile(kCapture), "okokok");

    // A client that stops sending still gets the responses it waits for, then the daemon
    // closes the connection instead of reading its end of data again and again.
    ASSERT_EQ(client.send(good.encode()), 0);
    ASSERT_EQ(client.shutdownSending(), 0);
    Response response;
    ASSERT_EQ(client.receive(&response, kResponseTimeoutMs), 0);
    EXPECT_EQ(response.requestId, 10u);
    EXPECT_EQ(client.receive(&response, kResponseTimeoutMs), -ECONNRESET);
    EXPECT_TRUE(daemonRunning());
}

TEST_F(SocketSystem, HungUpClientsResponseNeverReachesTheNextClient)
{
    Connection first;
    ASSERT_NO_FATAL_FAILURE(startLinked(&first));

    // The first client's request waits behind a stalled host while the client hangs up.
    ASSERT_TRUE(usbdtest::emuctl("stall"));
    SendRequest firstRequest(100);
    firstRequest.addMemory("gone", 4);
    ASSERT_EQ(first.send(firstRequest.encode()), 0);
    ASSERT_NO_FATAL_FAILURE(waitUntilRead(first));
    first.close();
    ASSERT_TRUE(waitForLog("closing"));

    // A new client, which would be given the first one's descriptor number had it been closed.
    Connection second;
    ASSERT_NO_FATAL_FAILURE(connect(&second));
    SendRequest secondRequest(200);
    secondRequest.addMemory("here", 4);
    ASSERT_EQ(second.send(secondRequest.encode()), 0);
    ASSERT_NO_FATAL_FAILURE(waitUntilRead(second));
    ASSERT_TRUE(usbdtest::emuctl("release"));

    Response response;
    ASSERT_EQ(second.receive(&response, kResponseTimeoutMs), 0);
    EXPECT_EQ(response.requestId, 200u);
    EXPECT_EQ(response.status, 0);
    expectNoResponse(&second);
    // The gone client's request was still sent; its response failed without harm.
    EXPECT_EQ(readFile(kCapture), "gonehere");
    EXPECT_TRUE(waitForLog("failed to write response"));
    EXPECT_TRUE(daemonRunning());
}

TEST_F(SocketSystem, StaleSocketFileLeavesTheFrontEndOff)
{
    const int stale = open(usbd::client::kDefaultSocketPath, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(stale, 0);
    close(stale);
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    ASSERT_TRUE(waitForLog("bind() failed: -1"));

    Connection client;
    EXPECT_EQ(client.connect(), -ECONNREFUSED);
    struct stat st {};
    ASSERT_EQ(stat(usbd::client::kDefaultSocketPath, &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode)); // left as it was
    EXPECT_TRUE(daemonRunning());
}

TEST_F(SocketSystem, ClientsBeyondTheDescriptorLimitDoNotMakeTheServerSpin)
{
    Connection first;
    ASSERT_NO_FATAL_FAILURE(startLinked(&first));
    // Leave the daemon room for a few more descriptors only, then connect more clients than
    // that (but not more than the listen backlog holds, or connect() would wait).
    const std::filesystem::directory_iterator fds("/proc/" + std::to_string(daemon_) + "/fd");
    const auto open = rlim_t(std::distance(begin(fds), end(fds)));
    const rlimit few{open + 4, open + 4};
    ASSERT_EQ(prlimit(daemon_, RLIMIT_NOFILE, &few, nullptr), 0);
    std::vector<Connection> crowd(20);
    for (Connection &c : crowd)
        ASSERT_EQ(c.connect(), 0);
    // With the pause, a few failures take a few tenths of a second; without it, accept() would
    // fail at the speed of the event loop, thousands of times before the log is read again.
    ASSERT_TRUE(waitForLog("accept() failed: -1", 3));
    EXPECT_LT(countOf(readFile(kDaemonLog), "accept() failed"), 30);

    // Once descriptors are free again, waiting clients are accepted and served.
    crowd.clear();
    Connection late;
    ASSERT_EQ(late.connect(), 0);
    const Response response = exchange(&late, SendRequest(5).addMemory("late", 4).encode());
    EXPECT_EQ(response.requestId, 5u);
    EXPECT_EQ(response.status, 0);
    EXPECT_EQ(exchange(&first, SendRequest(6).encode()).requestId, 6u);
}
