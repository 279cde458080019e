// Buffers and request lists: range checks, file mappings, and the answers to requesters.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include <QDBusError>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include "datapath_fakes.h"

namespace {

int openDescriptorCount()
{
    return int(QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::Files | QDir::System).size());
}

int mappingCount(const QString &path)
{
    std::ifstream maps("/proc/self/maps");
    int count = 0;
    for (std::string line; std::getline(maps, line);)
        count += QString::fromStdString(line).endsWith(path) ? 1 : 0;
    return count;
}

QString writeFile(const QTemporaryDir &dir, const char *name, const QByteArray &content)
{
    const QString path = dir.filePath(QString::fromLatin1(name));
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(content);
    return path;
}

TEST(BufferTest, MemoryBufferSharesItsBytesAndRefusesRangesOutsideThem)
{
    const QByteArray bytes("0123456789");
    UsbDBufferMem whole(bytes, 0, 10, 4, 2, 9, nullptr);
    EXPECT_TRUE(whole.map());
    // No copy: the buffer reads the caller's array in place.
    EXPECT_EQ(whole.virtualAddress(), reinterpret_cast<const uchar *>(bytes.constData()));
    EXPECT_EQ(whole.physicalAddress(), 0u);

    UsbDBufferMem empty(QByteArray(), 0, 0, 0, 0, 0, nullptr);
    EXPECT_TRUE(empty.map());

    LogCapture log;
    EXPECT_TRUE(UsbDBufferMem(bytes, 7, 3, 0, 0, 0, nullptr).map());
    EXPECT_FALSE(UsbDBufferMem(bytes, 7, 4, 0, 0, 0, nullptr).map());
    EXPECT_FALSE(UsbDBufferMem(bytes, 11, 0, 0, 0, 0, nullptr).map());
    // offset + size wraps to 1 in 32 bits.
    EXPECT_FALSE(UsbDBufferMem(bytes, 0xffffffffu, 2, 0, 0, 0, nullptr).map());
    EXPECT_FALSE(UsbDBufferMem(QByteArray(), 0, 1, 0, 0, 0, nullptr).map());
    EXPECT_EQ(log.count("range outside its region"), 4);
}

TEST(BufferTest, FileBufferMapsTheWholeFileAndChecksTheRangeAgainstIt)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QByteArray content("abcdefghijklmnopqrstuvwxyz");
    const QString path = writeFile(dir, "letters", content);
    const QString empty = writeFile(dir, "empty", QByteArray());
    const QString missing = dir.filePath(QStringLiteral("missing"));

    {
        UsbDBufferPath buffer(path, 5, 10, 0, 0, 0, nullptr);
        ASSERT_TRUE(buffer.map());
        // The mapping starts at byte 0 of the file; the offset is the reader's to apply.
        EXPECT_EQ(QByteArray(reinterpret_cast<const char *>(buffer.virtualAddress()), 26), content);
        EXPECT_EQ(buffer.path(), path);
    }
    {
        LogCapture log;
        EXPECT_TRUE(UsbDBufferPath(path, 20, 6, 0, 0, 0, nullptr).map());
        EXPECT_FALSE(UsbDBufferPath(path, 20, 7, 0, 0, 0, nullptr).map());
        EXPECT_FALSE(UsbDBufferPath(path, 0xfffffff0u, 0x20, 0, 0, 0, nullptr).map());
        EXPECT_EQ(log.count("range outside its region"), 2);
    }
    {
        LogCapture log;
        const int descriptors = openDescriptorCount();
        UsbDBufferPath absent(missing, 0, 1, 0, 0, 0, nullptr);
        EXPECT_FALSE(absent.map());
        EXPECT_EQ(log.messages(), QStringList{"file not found: " + missing});

        // An empty file cannot be mapped; that failure is silent.
        UsbDBufferPath nothing(empty, 0, 0, 0, 0, 0, nullptr);
        EXPECT_FALSE(nothing.map());
        EXPECT_EQ(log.messages().size(), 1);
        EXPECT_EQ(openDescriptorCount(), descriptors + 1); // the empty file's, until destruction
    }
}

TEST(BufferTest, FileBufferReleasesItsDescriptorAndMappingAgainAndAgain)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString path = writeFile(dir, "data", QByteArray(100000, 'x'));
    const int descriptors = openDescriptorCount();

    {
        UsbDBufferPath buffer(path, 0, 100000, 0, 0, 0, nullptr);
        for (int i = 0; i < 50; ++i)
            ASSERT_TRUE(buffer.map());
        EXPECT_EQ(openDescriptorCount(), descriptors + 1);
        EXPECT_EQ(mappingCount(path), 1);

        // The file shrinks between two maps: the second one sees the new size.
        ASSERT_TRUE(QFile::resize(path, 10));
        EXPECT_FALSE(buffer.map());
    }
    EXPECT_EQ(openDescriptorCount(), descriptors);
    EXPECT_EQ(mappingCount(path), 0);
}

TEST(BufferListTest, DeletingAListDeletesEachBufferOnceInOrder)
{
    std::vector<int> deleted;
    QList<UsbDBuffer *> buffers;
    for (int i = 0; i < 3; ++i) {
        auto *buffer = new TestBuffer(QByteArray(4, char(i)));
        buffer->onDelete = [&deleted, i] { deleted.push_back(i); };
        buffers.append(buffer);
        buffers.append(nullptr);
    }
    Recorder recorder;
    delete new TestList(1, &recorder, buffers);
    EXPECT_EQ(deleted, (std::vector<int>{0, 1, 2}));
}

TEST(BufferListTest, DBusListAnswersWithAReplyOrTheFailedError)
{
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("com.korvane.usbd"), QStringLiteral("/"), QStringLiteral("com.korvane.usbd"),
        QStringLiteral("send_data"));
    call.setDelayedReply(true);

    clearSentBusMessages();
    UsbDDBusBufferList(QList<UsbDBuffer *>(), call, nullptr).success();
    UsbDDBusBufferList(QList<UsbDBuffer *>(), call, nullptr).fail();
    // Dropped without completion: nothing is sent.
    delete new UsbDDBusBufferList(QList<UsbDBuffer *>(), call, nullptr);

    const auto sent = sentBusMessages();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].type(), QDBusMessage::ReplyMessage);
    EXPECT_TRUE(sent[0].arguments().isEmpty());
    EXPECT_EQ(sent[1].type(), QDBusMessage::ErrorMessage);
    EXPECT_EQ(sent[1].errorName(), QStringLiteral("org.freedesktop.DBus.Error.Failed"));
    EXPECT_EQ(sent[1].errorMessage(), QStringLiteral("Failed to send buffer"));
}

class SocketListTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        // A write to a gone peer must not end the process: keep SIGPIPE's default action,
        // which would.
        signal(SIGPIPE, SIG_DFL);
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair_), 0);
        fcntl(pair_[0], F_SETFL, O_NONBLOCK);
        connection_ = UsbDSocketConnectionPtr::create(pair_[0]);
    }
    void TearDown() override
    {
        if (pair_[1] >= 0)
            close(pair_[1]);
    }

    QByteArray readResponse()
    {
        char bytes[16];
        const ssize_t n = read(pair_[1], bytes, sizeof bytes);
        return n > 0 ? QByteArray(bytes, int(n)) : QByteArray();
    }

    int pair_[2] = {-1, -1};
    UsbDSocketConnectionPtr connection_;
};

TEST_F(SocketListTest, ResponsesCarryTheIdAndStatus)
{
    UsbDSocketBufferList(QList<UsbDBuffer *>(), connection_, 7, nullptr).success();
    EXPECT_EQ(readResponse(), QByteArray::fromHex("0700000000000000"));
    UsbDSocketBufferList(QList<UsbDBuffer *>(), connection_, 0xa1b2c3d4, nullptr).fail();
    EXPECT_EQ(readResponse(), QByteArray::fromHex("d4c3b2a1ffffffff"));

    // Responses on a descriptor that is not a socket (as the socket server never makes them,
    // but a pipe is a plain file) still go out.
    int pipeEnds[2];
    ASSERT_EQ(pipe(pipeEnds), 0);
    UsbDSocketBufferList(QList<UsbDBuffer *>(), UsbDSocketConnectionPtr::create(pipeEnds[1]), 3,
                         nullptr)
        .success();
    char bytes[8] = {};
    EXPECT_EQ(read(pipeEnds[0], bytes, 8), 8);
    EXPECT_EQ(QByteArray(bytes, 8), QByteArray::fromHex("0300000000000000"));
    close(pipeEnds[0]);
}

TEST_F(SocketListTest, PendingRequestKeepsItsConnectionAndAGonePeerIsOnlyLogged)
{
    const int number = pair_[0];
    auto *request = new UsbDSocketBufferList(QList<UsbDBuffer *>(), connection_, 1, nullptr);
    // The server forgets the client (it hung up); the pending request still holds the
    // connection, so its number cannot be handed to a new descriptor.
    connection_.reset();
    EXPECT_NE(fcntl(number, F_GETFD), -1);
    const int fresh = open("/dev/null", O_RDONLY);
    EXPECT_NE(fresh, number);
    close(fresh);

    close(pair_[1]);
    pair_[1] = -1;
    {
        LogCapture log;
        request->success();
        EXPECT_EQ(log.messages(), QStringList{"usbdbufferlist: failed to write response"});
    }
    delete request;
    EXPECT_EQ(fcntl(number, F_GETFD), -1);
}

} // namespace
