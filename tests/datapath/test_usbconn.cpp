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
    answerHook = [](size_t) { errno = ENOMEM; return -1L; };
    EXPECT_FALSE(sendOn({new UsbDBufferMem(region, 0, kMiB, 0, 0, 0, nullptr)}));
    answerHook = nullptr;
    EXPECT_EQ(calls.back().lengths[0], size_t(kUsbMinBytesPerCall));
    EXPECT_TRUE(log.contains(QStringLiteral("usbconn: writev() failed: %1").arg(ENOMEM)));
}

// Padding costs a fixed amount of memory however large: every padding entry points into one
// zero block no larger than a call, and every byte of it is offered exactly once.
TEST(UsbConnCalls, HugePaddingFromOneSmallBlock)
{
    const QByteArray data(1000, 'd');
    constexpr quint32 kPadding = 0xC0000000u;
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
}

// The fake endpoint's call blocks until a signal ends it, like a write to a host that does not
// read. `signalFirst`: a signal that comes just before the call is taken while signals are
// blocked and handled before the call starts, so it ends nothing; the call then waits up to a
// second and takes everything. Otherwise an ending signal makes the call report half of what it
// was offered, as a call does whose first chunks went out.
std::atomic<bool> entered{false};
long blockingAnswer(size_t offered, bool signalFirst)
{
    sigset_t usr1;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    if (signalFirst)
        pthread_sigmask(SIG_BLOCK, &usr1, nullptr);
    entered = true;
    if (signalFirst) {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        pthread_sigmask(SIG_UNBLOCK, &usr1, nullptr); // the pending signal is handled here
    }
    const timespec limit{1, 0};
    if (::ppoll(nullptr, 0, &limit, nullptr) == 0)
        return long(offered);
    return signalFirst ? (errno = EINTR, -1L) : long(offered / 2);
}

TEST(UsbConnInterrupt, EndsTheTransferInProgressEveryTimeWithin100ms)
{
    for (const bool signalFirst : {false, true}) {
        SCOPED_TRACE(signalFirst ? "signal before the call" : "partial count");
        UsbDataIn queue({new USBConn(fakeFd, true, nullptr)});
        std::thread worker([&queue] { queue.process(); });
        queue.setLinkType(OstrTypes::LinkTypeUsb);
        Recorder recorder;
        calls.clear();
        entered = false;
        bool first = true;
        answerHook = [&first, signalFirst](size_t offered) {
            return std::exchange(first, false) ? blockingAnswer(offered, signalFirst) : long(offered);
        };
        const QByteArray data(int(kMiB), 'i');
        queue.send_data(new TestList(1, &recorder, {new UsbDBufferMem(data, 0, kMiB, 0, 0, 0, nullptr)}));
        while (!entered)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));

        const auto start = std::chrono::steady_clock::now();
        queue.interrupt();
        ASSERT_TRUE(recorder.waitDeleted(1));
        const auto elapsed = std::chrono::steady_clock::now() - start;
        EXPECT_EQ(recorder.outcome(1), Recorder::Failed);
        EXPECT_LT(elapsed, std::chrono::milliseconds(100));
        EXPECT_EQ(calls.size(), 1u); // nothing of the request after the interrupt

        // The next request is not touched by the interrupt of the one before.
        queue.send_data(new TestList(2, &recorder, {new UsbDBufferMem(data, 0, 10, 0, 0, 0, nullptr)}));
        ASSERT_TRUE(recorder.waitDeleted(2));
        EXPECT_EQ(recorder.outcome(2), Recorder::Succeeded);
        queue.quit();
        worker.join();
        answerHook = nullptr;
    }
}

} // namespace
