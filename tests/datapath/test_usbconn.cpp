// The physical-address request, which the emulated endpoint does not serve. writev() and ioctl() are replaced for this binary; calls on the fake endpoint are
// recorded and answered here, all others reach the kernel.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstring>

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

long answer(size_t offered)
{
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

    nextError = ENOTTY;
    EXPECT_FALSE(send({new PhysicalBuffer(region, 64, 0, kPhys)}));
    EXPECT_EQ(calls.size(), 1u);
    EXPECT_TRUE(log.contains(QStringLiteral("usbconn: ioctl() failed: %1").arg(ENOTTY)));
}

} // namespace
