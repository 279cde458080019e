// What the emulated endpoint cannot show: the physical-address request, endpoint drivers that
// lack it or cannot take large calls, and signals that arrive at the worst moment. writev() and
// ioctl() are replaced for this binary; calls on the fake endpoint are recorded and answered
// here, all others reach the kernel.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstring>
#include <functional>
#include <future>
#include <thread>

#include <poll.h>
#include <signal.h>

#include "usbdatain.h"

#include "datapath_fakes.h"
#include "transferthread.h"
#include "usbconn.h"

namespace {

struct Call {
    bool ioctl = false;
    std::vector<size_t> lengths; // writev entries, or the ioctl record's length
    const void *start = nullptr; // writev: first entry
    uint32_t physical = 0;       // ioctl: the record's address
};

const int fakeFd = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
std::vector<Call> calls;
long nextLimit = -1; // the next call takes at most this many bytes
int nextError = 0;   // the next call fails with this
// When set, answers every call instead of the two above.
std::function<long(size_t offered)> answerHook;

long answer(size_t offered)
{
    if (answerHook)
        return answerHook(offered);
    const long limit = std::exchange(nextLimit, -1);
    if (const int error = std::exchange(nextError, 0)) {
        errno = error;
        return -1;
    }
    return limit >= 0 ? std::min(limit, long(offered)) : long(offered);
}

} // namespace

extern "C" ssize_t writev(int fd, const struct iovec *iov, int count)
{
    if (fd != fakeFd)
        return ::syscall(SYS_writev, fd, iov, count);
    Call call;
    call.start = count > 0 ? iov[0].iov_base : nullptr;
    size_t offered = 0;
    for (int i = 0; i < count; ++i) {
        call.lengths.push_back(iov[i].iov_len);
        offered += iov[i].iov_len;
    }
    calls.push_back(call);
    return answer(offered);
}

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list args;
    va_start(args, request);
    void *argument = va_arg(args, void *);
    va_end(args);
    if (fd != fakeFd)
        return int(::syscall(SYS_ioctl, fd, request, argument));
    UsbPhysTransfer record;
    std::memcpy(&record, argument, sizeof record);
    Call call;
    call.ioctl = request == kUsbPhysTransferIoctl;
    call.lengths = {record.length};
    call.physical = record.physicalAddress;
    calls.push_back(call);
    return int(answer(record.length));
}

namespace {

constexpr size_t kMiB = 1024 * 1024;

bool send(const QList<UsbDBuffer *> &buffers, bool physicalTransfers = true)
{
    calls.clear();
    Recorder recorder;
    TestList request(1, &recorder, buffers);
    return USBConn(fakeFd, physicalTransfers, nullptr).transfer(&request);
}

TEST(UsbConnCalls, PhysicalAddressPath)
{
    constexpr quint32 kPhys = 0x40000000;
    const QByteArray region(int(20 * kMiB + 64), 'p');
    const auto *bytes = reinterpret_cast<const uchar *>(region.constData()) + 64;

    LogCapture log;
    ASSERT_TRUE(send({new PhysicalBuffer(region, 64, 0, kPhys)}));
    ASSERT_EQ(calls.size(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_TRUE(calls[i].ioctl);
        EXPECT_EQ(calls[i].physical, kPhys + 64 + i * 8 * kMiB);
        EXPECT_EQ(calls[i].lengths[0], i < 2 ? 8 * kMiB : 4 * kMiB);
    }
    EXPECT_TRUE(log.contains("max_buffers: 0, virt_buffers: 0 (0b), phys_buffers: 3 (20480kb)"));

    // The last piece shares its call with the padding: writev, from the mapping.
    ASSERT_TRUE(send({new PhysicalBuffer(region, 64, 100, kPhys)}));
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_FALSE(calls[2].ioctl);
    EXPECT_EQ(calls[2].lengths, (std::vector<size_t>{4 * kMiB, 100}));
    EXPECT_EQ(calls[2].start, bytes + 16 * kMiB);

    // A short ioctl is continued at the next physical address.
    nextLimit = 4096;
    ASSERT_TRUE(send({new PhysicalBuffer(region, 64, 0, kPhys)}));
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[1].physical, kPhys + 64 + 4096);
    EXPECT_EQ(calls[1].lengths[0], 8 * kMiB);

    ASSERT_TRUE(send({new PhysicalBuffer(region, 64, 0, kPhys)}, false));
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_FALSE(calls[0].ioctl);
    EXPECT_EQ(calls[0].start, bytes);
}

// A stock FunctionFS has no physical-address request (ENOTTY), and f_fs copies each call into
// one contiguous kernel buffer that a controller without scatter-gather may not get (ENOMEM).
// Either way the bytes must still go out, exactly once, and the transport must remember.
TEST(UsbConnCalls, StockDriverAndSmallKernelBuffers)
{
    constexpr quint32 kPhys = 0x40000000;
    const QByteArray region(int(20 * kMiB), 'p');
    const auto *bytes = reinterpret_cast<const uchar *>(region.constData());
    USBConn conn(fakeFd, true, nullptr);
    Recorder recorder;
    auto sendOn = [&](const QList<UsbDBuffer *> &buffers) {
        calls.clear();
        TestList request(1, &recorder, buffers);
        return conn.transfer(&request);
    };

    LogCapture log;
    nextError = ENOTTY;
    ASSERT_TRUE(sendOn({new PhysicalBuffer(region, 0, 0, kPhys)}));
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_TRUE(calls[0].ioctl);
    for (size_t i = 1; i < 4; ++i) {
        EXPECT_FALSE(calls[i].ioctl);
        EXPECT_EQ(calls[i].start, bytes + (i - 1) * 8 * kMiB); // from the first byte again
    }
    EXPECT_TRUE(log.contains(QStringLiteral("usbconn: ioctl() failed: %1").arg(ENOTTY)));
    ASSERT_TRUE(sendOn({new PhysicalBuffer(region, 0, 0, kPhys)}));
    EXPECT_EQ(calls.size(), 3u);
    EXPECT_FALSE(calls[0].ioctl);

    // 8 MiB is too much for the kernel: the same bytes in 4 MiB calls, and so from then on.
    nextError = ENOMEM;
    ASSERT_TRUE(sendOn({new UsbDBufferMem(region, 0, 10 * kMiB, 0, 0, 0, nullptr)}));
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[0].lengths[0], 8 * kMiB);
    EXPECT_EQ(calls[1].lengths[0], 4 * kMiB);
    EXPECT_EQ(calls[1].start, bytes);
    EXPECT_EQ(calls[3].lengths[0], 2 * kMiB);
    ASSERT_TRUE(sendOn({new UsbDBufferMem(region, 0, 8 * kMiB, 0, 0, 0, nullptr)}));
    EXPECT_EQ(calls.size(), 2u);

    // Down to the smallest call size, then it is an error like any other.
    answerHook = [](size_t) {
        errno = ENOMEM;
        return -1L;
    };
    EXPECT_FALSE(sendOn({new UsbDBufferMem(region, 0, kMiB, 0, 0, 0, nullptr)}));
    answerHook = nullptr;
    EXPECT_EQ(calls.back().lengths[0], size_t(kUsbMinBytesPerCall));
    EXPECT_TRUE(log.contains(QStringLiteral("usbconn: writev() failed: %1").arg(ENOMEM)));
}

// Padding costs a fixed amount of memory however large: every padding entry points into one
// zero block no larger than a call, and every byte of it is offered exactly once. A padding of
// 2 GiB or more, negative as the D-Bus interface's signed count, is refused before any call.
TEST(UsbConnCalls, HugePaddingFromOneSmallBlock)
{
    const QByteArray data(1000, 'd');
    constexpr quint32 kPadding = 0x7FFFFFFFu;
    ASSERT_TRUE(send({new UsbDBufferMem(data, 0, 1000, 0, kPadding, 0, nullptr),
                      new UsbDBufferMem(data, 0, 10, 0, 5, 0, nullptr)}));
    quint64 offered = 0;
    const uchar *lowest = nullptr;
    const uchar *highest = nullptr;
    for (const Call &call : calls) {
        for (size_t length : call.lengths)
            offered += length;
    }
    EXPECT_EQ(offered, 1000u + kPadding + 10u + 5u);
    // Every call after the first starts in the padding (the data is elsewhere).
    for (size_t i = 1; i + 1 < calls.size(); ++i) {
        const auto *start = static_cast<const uchar *>(calls[i].start);
        lowest = lowest ? std::min(lowest, start) : start;
        highest = highest ? std::max(highest, start) : start;
    }
    ASSERT_NE(lowest, nullptr);
    EXPECT_LT(size_t(highest - lowest), size_t(kUsbMaxBytesPerCall));

    LogCapture log;
    EXPECT_FALSE(send({new UsbDBufferMem(data, 0, 10, 0, 5, 0, nullptr),
                       new UsbDBufferMem(data, 0, 10, 0, 0x80000000u, 0, nullptr)}));
    EXPECT_TRUE(calls.empty());
    EXPECT_TRUE(log.contains("failed to map buffer"));
}

// The fake endpoint's first call blocks until SIGUSR1 reaches it, like a write to a host that
// does not read, and then answers as `onSignal` says; later calls take everything.
// `signalFirst`: the signal comes while the worker is not yet in its call (it is blocked there
// until the call starts), so it ends nothing and the call takes everything after a while.
std::atomic<bool> entered{false};
std::atomic<pthread_t> caller{};
long blockingAnswer(size_t offered, bool signalFirst, long onSignal)
{
    // SIGUSR1 stays blocked until the wait below unblocks it atomically, so that a signal sent
    // once `entered` is seen always ends the wait.
    sigset_t usr1;
    sigset_t previous;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &usr1, &previous);
    caller = pthread_self();
    entered = true;
    if (signalFirst) {
        sigwaitinfo(&usr1, nullptr); // taken before the call: it never sees it
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        const timespec pause{0, 50 * 1000 * 1000};
        ::ppoll(nullptr, 0, &pause, nullptr);
        return long(offered);
    }
    sigset_t open = previous;
    sigdelset(&open, SIGUSR1);
    const timespec limit{30, 0};
    const int woken = ::ppoll(nullptr, 0, &limit, &open);
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    if (woken == 0)
        return long(offered);
    if (onSignal < 0)
        errno = EINTR;
    return onSignal;
}

// One SIGUSR1, from a client's interrupt or from anywhere else, makes a blocked write return
// early: EINTR fails the request, a partial count is continued at the first unwritten byte,
// and a signal that comes while no call blocks changes nothing.
TEST(UsbConnInterrupt, TheSignalEndsOnlyTheCallItInterrupts)
{
    struct Case {
        const char *name;
        bool signalFirst;
        bool fromClient;
        long onSignal; // what the interrupted call returns; -1: EINTR
        bool sent;
    };
    const QByteArray data(int(kMiB), 'i');
    for (const Case &c : {Case{"client interrupt, EINTR", false, true, -1, false},
                          Case{"any other SIGUSR1, EINTR", false, false, -1, false},
                          Case{"partial count", false, true, long(kMiB / 2), true},
                          Case{"nothing taken", false, true, 0, true},
                          Case{"signal before the call", true, true, 0, true}}) {
        SCOPED_TRACE(c.name);
        TransferThread transferThread;
        auto *usb = new USBConn(fakeFd, true, nullptr);
        usb->setTransferThread(&transferThread);
        UsbDataIn queue({usb});
        queue.setTransferThread(&transferThread);
        std::thread worker([&queue] { queue.process(); });
        queue.setLinkType(OstrTypes::LinkTypeUsb);
        Recorder recorder;
        calls.clear();
        entered = false;
        bool first = true;
        answerHook = [&first, &c](size_t offered) {
            return std::exchange(first, false) ? blockingAnswer(offered, c.signalFirst, c.onSignal)
                                               : long(offered);
        };
        LogCapture log;
        queue.send_data(
            new TestList(1, &recorder, {new UsbDBufferMem(data, 0, kMiB, 0, 0, 0, nullptr)}));
        while (!entered)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (c.fromClient)
            queue.interrupt();
        else
            pthread_kill(caller, SIGUSR1);
        ASSERT_TRUE(recorder.waitDeleted(1));
        EXPECT_EQ(recorder.outcome(1), c.sent ? Recorder::Succeeded : Recorder::Failed);
        if (c.sent) {
            ASSERT_GE(calls.size(), 1u);
            size_t offered = 0;
            for (size_t length : calls.back().lengths)
                offered += length;
            const size_t taken = c.signalFirst ? kMiB : size_t(c.onSignal);
            EXPECT_EQ(calls.size(), c.signalFirst ? 1u : 2u);
            EXPECT_EQ(offered, kMiB - (c.signalFirst ? 0 : taken));
        } else {
            EXPECT_EQ(calls.size(), 1u);
            EXPECT_TRUE(log.contains(QStringLiteral("usbconn: writev() failed: %1").arg(EINTR)));
        }

        // The next request is not touched by the signal of the one before.
        queue.send_data(
            new TestList(2, &recorder, {new UsbDBufferMem(data, 0, 10, 0, 0, 0, nullptr)}));
        ASSERT_TRUE(recorder.waitDeleted(2));
        EXPECT_EQ(recorder.outcome(2), Recorder::Succeeded);
        queue.quit();
        worker.join();
        answerHook = nullptr;
    }
}

} // namespace
