// Buffer range checks and file mappings, and socket responses to clients that may have gone.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <usbd/unique_fd.h>

#include "datapath_fakes.h"

namespace {

int openDescriptors()
{
    return QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::Files | QDir::System).size();
}

int mappingsOf(const QString &path)
{
    std::ifstream maps("/proc/self/maps");
    int count = 0;
    for (std::string line; std::getline(maps, line);)
        count += QString::fromStdString(line).endsWith(path) ? 1 : 0;
    return count;
}

TEST(Buffers, RangesOutsideTheRegionAreRefused)
{
    const QByteArray bytes("0123456789");
    EXPECT_TRUE(UsbDBufferMem(bytes, 7, 3, 0, 0, 0, nullptr).map());
    EXPECT_TRUE(UsbDBufferMem(QByteArray(), 0, 0, 0, 0, 0, nullptr).map());
    EXPECT_FALSE(UsbDBufferMem(bytes, 7, 4, 0, 0, 0, nullptr).map());
    EXPECT_FALSE(UsbDBufferMem(bytes, 0xffffffffu, 2, 0, 0, 0, nullptr).map()); // wraps in 32 bits

    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("letters"));
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("abcdefghijklmnopqrstuvwxyz");
    file.close();

    UsbDBufferPath inside(path, 20, 6, 0, 0, 0, nullptr);
    ASSERT_TRUE(inside.map());
    // The mapping starts at the file's first byte; the offset is the reader's to apply.
    EXPECT_EQ(QByteArray(reinterpret_cast<const char *>(inside.virtualAddress()), 3), "abc");
    EXPECT_FALSE(UsbDBufferPath(path, 20, 7, 0, 0, 0, nullptr).map());
    EXPECT_FALSE(UsbDBufferPath(path, 0xfffffff0u, 0x20, 0, 0, 0, nullptr).map());

    LogCapture log;
    const QString missing = dir.filePath(QStringLiteral("missing"));
    EXPECT_FALSE(UsbDBufferPath(missing, 0, 1, 0, 0, 0, nullptr).map());
    EXPECT_EQ(log.messages(), QStringList{"file not found: " + missing});
}

TEST(Buffers, FilesLargerThanFourGiBGiveTheSameBytesOnEveryArchitecture)
{
    // A sparse 5 GiB file: marks at byte 5, just below 4 GiB and at 4 GiB + 5. Offsets and
    // sizes are 32-bit, so an offset of 4 GiB + 5 has already become 5 before it gets here.
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("large"));
    {
        usbd::UniqueFd fd(::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT, 0600));
        ASSERT_TRUE(fd);
        const off_t fourGiB = off_t(1) << 32;
        ASSERT_EQ(::pwrite(fd.get(), "small", 5, 5), 5);
        ASSERT_EQ(::pwrite(fd.get(), "below", 5, fourGiB - 5), 5);
        ASSERT_EQ(::pwrite(fd.get(), "above", 5, fourGiB + 5), 5);
        ASSERT_EQ(::ftruncate(fd.get(), 5 * fourGiB / 4), 0);
    }

    UsbDBufferPath low(path, 5, 5, 0, 0, 0, nullptr);
    ASSERT_TRUE(low.map());
    EXPECT_EQ(QByteArray(reinterpret_cast<const char *>(low.virtualAddress() + low.offset()), 5),
              "small");

    // The last bytes a 32-bit offset reaches need almost 4 GiB of address space from byte 0:
    // a 32-bit process may not have it, and then the map fails instead of reading elsewhere.
    UsbDBufferPath high(path, 0xfffffffbu, 5, 0, 0, 0, nullptr);
    if (high.map()) {
        EXPECT_EQ(
            QByteArray(reinterpret_cast<const char *>(high.virtualAddress() + high.offset()), 5),
            "below");
    } else {
        EXPECT_EQ(sizeof(void *), 4u);
    }
    // Past the end of the file is refused whatever the file's size.
    EXPECT_FALSE(UsbDBufferPath(path, 0xfffffffbu, 0xffffffffu, 0, 0, 0, nullptr).map());
}

TEST(Buffers, RepeatedMapsAndDestructionLeaveNothingBehind)
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("data"));
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(QByteArray(100000, 'x'));
    file.close();
    const int descriptors = openDescriptors();
    {
        UsbDBufferPath buffer(path, 0, 100000, 0, 0, 0, nullptr);
        for (int i = 0; i < 20; ++i)
            ASSERT_TRUE(buffer.map());
        EXPECT_EQ(openDescriptors(), descriptors + 1);
        EXPECT_EQ(mappingsOf(path), 1);
        // The file shrank: the next map sees its new size.
        ASSERT_TRUE(QFile::resize(path, 10));
        EXPECT_FALSE(buffer.map());
    }
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_EQ(mappingsOf(path), 0);
}

TEST(SocketResponses, ReachOnlyTheirOwnConnectionAndNeverRaiseSigpipe)
{
    signal(SIGPIPE, SIG_DFL); // a SIGPIPE would end this test
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    auto connection = UsbDSocketConnectionPtr::create(pair[0]);
    char bytes[16];

    UsbDSocketBufferList(QList<UsbDBuffer *>(), connection, 7, nullptr).success();
    ASSERT_EQ(read(pair[1], bytes, sizeof bytes), 8);
    EXPECT_EQ(QByteArray(bytes, 8), QByteArray::fromHex("0700000000000000"));
    UsbDSocketBufferList(QList<UsbDBuffer *>(), connection, 0xa1b2c3d4, nullptr).fail();
    ASSERT_EQ(read(pair[1], bytes, sizeof bytes), 8);
    EXPECT_EQ(QByteArray(bytes, 8), QByteArray::fromHex("d4c3b2a1ffffffff"));

    // The client hangs up and the server forgets it; its pending request keeps the descriptor
    // number taken, so no new connection can receive the response.
    auto *pending = new UsbDSocketBufferList(QList<UsbDBuffer *>(), connection, 1, nullptr);
    connection.reset();
    close(pair[1]);
    const int fresh = open("/dev/null", O_RDONLY);
    EXPECT_NE(fresh, pair[0]);
    close(fresh);
    LogCapture log;
    pending->success();
    EXPECT_EQ(log.messages(), QStringList{"usbdbufferlist: failed to write response"});
    delete pending;
    EXPECT_EQ(fcntl(pair[0], F_GETFD), -1); // closed with the last reference
}

} // namespace
