// How USBConn cuts a request into system calls, seen from the endpoint's side.

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "datapath_fakes.h"
#include "fake_endpoint.h"
#include "usbconn.h"

namespace {

constexpr size_t kMiB = 1024 * 1024;

QByteArray pattern(size_t size, int seed)
{
    QByteArray data(int(size), Qt::Uninitialized);
    for (size_t i = 0; i < size; ++i)
        data[int(i)] = char((i * 131 + size_t(seed) * 7 + i / 251) & 0xff);
    return data;
}

// The request as the host must see it: each buffer's bytes, then its padding as zeros.
std::string wire(const QList<QByteArray> &data, const QList<quint32> &padding)
{
    std::string bytes;
    for (int i = 0; i < data.size(); ++i) {
        bytes.append(data[i].constData(), size_t(data[i].size()));
        bytes.append(padding.value(i), '\0');
    }
    return bytes;
}

class UsbConnTest : public ::testing::Test {
protected:
    void SetUp() override { fake_endpoint::reset(); }

    // Runs one request made of `buffers` through a fresh USBConn.
    bool send(const QList<UsbDBuffer *> &buffers, bool physicalTransfers = true)
    {
        USBConn conn(fake_endpoint::fd(), physicalTransfers, nullptr);
        TestList request(1, &recorder_, buffers);
        return conn.transfer(&request);
    }

    static std::vector<size_t> entryLengths(const fake_endpoint::Call &call)
    {
        std::vector<size_t> lengths;
        for (const iovec &entry : call.entries)
            lengths.push_back(entry.iov_len);
        return lengths;
    }

    Recorder recorder_;
};

TEST_F(UsbConnTest, AtMost32SegmentsPerRequest)
{
    struct Case {
        int buffers;
        quint32 padding;
        bool accepted;
    };
    for (const Case c : {Case{32, 0, true}, Case{33, 0, false}, Case{16, 3, true},
                         Case{17, 3, false}}) {
        SCOPED_TRACE(testing::Message() << c.buffers << " buffers, padding " << c.padding);
        fake_endpoint::reset();
        LogCapture log;
        QList<UsbDBuffer *> buffers;
        QList<QByteArray> data;
        QList<quint32> padding;
        for (int i = 0; i < c.buffers; ++i) {
            data.append(pattern(100 + size_t(i), i));
            padding.append(c.padding);
            buffers.append(new TestBuffer(data.last(), c.padding));
        }

        EXPECT_EQ(send(buffers), c.accepted);
        const auto calls = fake_endpoint::calls();
        if (c.accepted) {
            ASSERT_EQ(calls.size(), 1u);
            EXPECT_EQ(calls[0].entries.size(), 32u);
            EXPECT_EQ(fake_endpoint::captured(), wire(data, padding));
        } else {
            EXPECT_TRUE(calls.empty());
            EXPECT_EQ(log.count("failed to map buffer"), 1);
        }
    }
}

TEST_F(UsbConnTest, LargeBufferGoesOutInCallsOfAtMost8MiB)
{
    LogCapture log;
    const QByteArray data = pattern(20 * kMiB, 1);
    ASSERT_TRUE(send({new TestBuffer(data)}));

    const auto calls = fake_endpoint::calls();
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(entryLengths(calls[0]), std::vector<size_t>{8 * kMiB});
    EXPECT_EQ(entryLengths(calls[1]), std::vector<size_t>{8 * kMiB});
    EXPECT_EQ(entryLengths(calls[2]), std::vector<size_t>{4 * kMiB});
    EXPECT_EQ(fake_endpoint::captured(), wire({data}, {}));
    EXPECT_TRUE(log.contains("max_buffers: 1, virt_buffers: 3 (20480kb), phys_buffers: 0 (0b)"))
        << log.messages().join('\n').toStdString();

    // A call boundary inside a buffer and its padding, and a small remainder in bytes.
    fake_endpoint::reset();
    LogCapture log2;
    const QByteArray first = pattern(8 * kMiB - 10, 2);
    const QByteArray second = pattern(900, 3);
    ASSERT_TRUE(send({new TestBuffer(first, 30), new TestBuffer(second, 4)}));
    const auto calls2 = fake_endpoint::calls();
    ASSERT_EQ(calls2.size(), 2u);
    EXPECT_EQ(entryLengths(calls2[0]), (std::vector<size_t>{8 * kMiB - 10, 10}));
    EXPECT_EQ(entryLengths(calls2[1]), (std::vector<size_t>{20, 900, 4}));
    EXPECT_EQ(fake_endpoint::captured(), wire({first, second}, {30, 4}));
    EXPECT_TRUE(log2.contains("max_buffers: 3, virt_buffers: 5 (8192kb)"));
}

TEST_F(UsbConnTest, NothingToSendStillSucceeds)
{
    LogCapture log;
    EXPECT_TRUE(send({}));
    EXPECT_TRUE(send({new TestBuffer(QByteArray()), new TestBuffer(QByteArray())}));
    EXPECT_TRUE(fake_endpoint::calls().empty());
    EXPECT_EQ(log.count("max_buffers: 0, virt_buffers: 0 (0b), phys_buffers: 0 (0b)"), 2);

    // An empty buffer in front of padding still contributes its (empty) entry.
    fake_endpoint::reset();
    LogCapture log2;
    EXPECT_TRUE(send({new TestBuffer(QByteArray(), 8)}));
    const auto calls = fake_endpoint::calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(entryLengths(calls[0]), (std::vector<size_t>{0, 8}));
    EXPECT_EQ(fake_endpoint::captured(), std::string(8, '\0'));
    EXPECT_TRUE(log2.contains("max_buffers: 2, virt_buffers: 2 (8b), phys_buffers: 0 (0b)"));
}

TEST_F(UsbConnTest, ShortWritesContinueAtTheFirstUnwrittenByte)
{
    const QByteArray a = pattern(1000, 4);
    const QByteArray b = pattern(3000, 5);
    const QByteArray c = pattern(50, 6);
    // Stop inside a's padding, then just after it, then inside b, then take the rest.
    fake_endpoint::script({{1010}, {14}, {7}, {SIZE_MAX}});
    ASSERT_TRUE(send({new TestBuffer(a, 24), new TestBuffer(b, 0), new TestBuffer(c, 16)}));

    const auto calls = fake_endpoint::calls();
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(entryLengths(calls[0]), (std::vector<size_t>{1000, 24, 3000, 50, 16}));
    EXPECT_EQ(entryLengths(calls[1]), (std::vector<size_t>{14, 3000, 50, 16}));
    EXPECT_EQ(entryLengths(calls[2]), (std::vector<size_t>{3000, 50, 16}));
    EXPECT_EQ(entryLengths(calls[3]), (std::vector<size_t>{2993, 50, 16}));
    // Each continuation starts where the previous call stopped.
    EXPECT_EQ(static_cast<const char *>(calls[1].entries[0].iov_base),
              static_cast<const char *>(calls[0].entries[1].iov_base) + 10);
    EXPECT_EQ(calls[2].entries[0].iov_base, calls[0].entries[2].iov_base);
    EXPECT_EQ(static_cast<const char *>(calls[3].entries[0].iov_base),
              static_cast<const char *>(calls[0].entries[2].iov_base) + 7);
    EXPECT_EQ(fake_endpoint::captured(), wire({a, b, c}, {24, 0, 16}));

    // The two padding segments lie in one zero block without sharing bytes.
    const auto *padA = static_cast<const char *>(calls[0].entries[1].iov_base);
    const auto *padC = static_cast<const char *>(calls[0].entries[4].iov_base);
    EXPECT_TRUE(padA + 24 <= padC || padC + 16 <= padA);
}

TEST_F(UsbConnTest, FailureBeforeOrDuringTheWrites)
{
    {
        SCOPED_TRACE("a buffer that cannot be mapped fails the request before any write");
        LogCapture log;
        auto *unmappable = new TestBuffer(pattern(10, 7));
        unmappable->mapResult = false;
        auto *last = new TestBuffer(pattern(10, 8));
        EXPECT_FALSE(send({new TestBuffer(pattern(10, 9)), unmappable, last}));
        EXPECT_TRUE(fake_endpoint::calls().empty());
        EXPECT_EQ(log.count("failed to map buffer"), 1);
    }
    {
        SCOPED_TRACE("a memory buffer whose range lies outside its array");
        fake_endpoint::reset();
        LogCapture log;
        const QByteArray bytes = pattern(64, 10);
        EXPECT_FALSE(send({new UsbDBufferMem(bytes, 0, 64, 0, 0, 0, nullptr),
                           new UsbDBufferMem(bytes, 60, 5, 0, 0, 0, nullptr)}));
        EXPECT_TRUE(fake_endpoint::calls().empty());
        EXPECT_TRUE(log.contains("failed to map buffer"));
    }
    {
        SCOPED_TRACE("a failing call ends the transfer, interrupted or not");
        for (const int error : {EIO, EINTR}) {
            fake_endpoint::reset();
            LogCapture log;
            fake_endpoint::script({{SIZE_MAX}, {SIZE_MAX, error}});
            EXPECT_FALSE(send({new TestBuffer(pattern(12 * kMiB, 11))}));
            EXPECT_EQ(fake_endpoint::calls().size(), 2u);
            EXPECT_TRUE(log.contains(QStringLiteral("usbconn: writev() failed: %1").arg(error)))
                << log.messages().join('\n').toStdString();
        }
    }
    {
        SCOPED_TRACE("an endpoint that takes nothing does not keep the transfer spinning");
        fake_endpoint::reset();
        fake_endpoint::script({{0}, {0}, {0}});
        EXPECT_FALSE(send({new TestBuffer(pattern(100, 12))}));
        EXPECT_EQ(fake_endpoint::calls().size(), 1u);
    }
}

TEST_F(UsbConnTest, PhysicalAddressPath)
{
    constexpr quint32 kPhys = 0x40000000;
    const QByteArray data = pattern(20 * kMiB + 64, 13);
    const auto *base = reinterpret_cast<const uchar *>(data.constData());
    // The buffer's bytes start 64 bytes into its region, at a physical address to match.
    const auto physicalBuffer = [&](quint32 padding) {
        return new TestBuffer(data, padding, kPhys, 64);
    };
    const QByteArray expected = data.mid(64);

    {
        SCOPED_TRACE("single-entry calls go through the ioctl");
        fake_endpoint::reset();
        fake_endpoint::mapPhysical(kPhys, base, size_t(data.size()));
        LogCapture log;
        ASSERT_TRUE(send({physicalBuffer(0)}));
        const auto calls = fake_endpoint::calls();
        ASSERT_EQ(calls.size(), 3u);
        for (const auto &call : calls)
            EXPECT_TRUE(call.physical);
        EXPECT_EQ(calls[0].physicalAddress, kPhys + 64);
        EXPECT_EQ(calls[0].length, 8 * kMiB);
        EXPECT_EQ(calls[1].physicalAddress, kPhys + 64 + 8 * kMiB);
        EXPECT_EQ(calls[2].length, 4 * kMiB);
        EXPECT_EQ(fake_endpoint::captured(), expected.toStdString());
        EXPECT_TRUE(log.contains("max_buffers: 0, virt_buffers: 0 (0b), phys_buffers: 3 (20480kb)"))
            << log.messages().join('\n').toStdString();
    }
    {
        SCOPED_TRACE("a last piece that shares its call with padding goes through writev");
        fake_endpoint::reset();
        fake_endpoint::mapPhysical(kPhys, base, size_t(data.size()));
        ASSERT_TRUE(send({physicalBuffer(100)}));
        const auto calls = fake_endpoint::calls();
        ASSERT_EQ(calls.size(), 3u);
        EXPECT_TRUE(calls[0].physical);
        EXPECT_TRUE(calls[1].physical);
        EXPECT_FALSE(calls[2].physical);
        EXPECT_EQ(entryLengths(calls[2]), (std::vector<size_t>{4 * kMiB, 100}));
        EXPECT_EQ(fake_endpoint::captured(), wire({expected}, {100}));
    }
    {
        SCOPED_TRACE("a short ioctl is continued at the right physical address");
        fake_endpoint::reset();
        fake_endpoint::mapPhysical(kPhys, base, size_t(data.size()));
        fake_endpoint::script({{4096}});
        ASSERT_TRUE(send({physicalBuffer(0)}));
        const auto calls = fake_endpoint::calls();
        ASSERT_GE(calls.size(), 2u);
        EXPECT_EQ(calls[1].physicalAddress, kPhys + 64 + 4096);
        EXPECT_EQ(fake_endpoint::captured(), expected.toStdString());
    }
    {
        SCOPED_TRACE("without physical transfers everything goes through writev");
        fake_endpoint::reset();
        ASSERT_TRUE(send({physicalBuffer(0)}, false));
        for (const auto &call : fake_endpoint::calls())
            EXPECT_FALSE(call.physical);
        EXPECT_EQ(fake_endpoint::captured(), expected.toStdString());
    }
    {
        SCOPED_TRACE("a failed ioctl fails the request");
        fake_endpoint::reset();
        LogCapture log;
        fake_endpoint::script({{SIZE_MAX, ENODEV}});
        EXPECT_FALSE(send({physicalBuffer(0)}));
        EXPECT_TRUE(log.contains(QStringLiteral("usbconn: ioctl() failed: %1").arg(ENODEV)));
    }
}

TEST_F(UsbConnTest, ServesOnlyTheUsbLink)
{
    USBConn conn(-1, true, nullptr);
    EXPECT_FALSE(conn.supportsLinkType(OstrTypes::LinkTypeNone));
    EXPECT_TRUE(conn.supportsLinkType(OstrTypes::LinkTypeUsb));
    EXPECT_FALSE(conn.supportsLinkType(OstrTypes::LinkTypeMfi));
    EXPECT_FALSE(conn.supportsLinkType(OstrTypes::LinkTypeWifi));
}

} // namespace
