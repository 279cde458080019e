// Receiving a file from the host: a pipe stands for the bulk OUT endpoint.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include <QFile>
#include <QTemporaryDir>

#include "datapath_fakes.h"
#include "usbdatain.h"

namespace {

using namespace std::chrono_literals;

class ReceiveTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dir_.isValid());
        ASSERT_EQ(pipe(pipe_), 0);
        // Large enough that the tests' writes never wait for the reader.
        fcntl(pipe_[1], F_SETPIPE_SZ, 1024 * 1024);
    }
    void TearDown() override
    {
        closeWriter();
        close(pipe_[0]);
    }

    void closeWriter()
    {
        if (pipe_[1] >= 0)
            close(pipe_[1]);
        pipe_[1] = -1;
    }

    void hostSends(const QByteArray &bytes)
    {
        ASSERT_EQ(write(pipe_[1], bytes.constData(), size_t(bytes.size())), bytes.size());
    }

    // Runs one receive to the end; true when the worker reported it finished.
    bool receive(const QString &path, int size)
    {
        usbd_worker worker(pipe_[0], path, size, nullptr);
        bool finished = false;
        QObject::connect(&worker, &usbd_worker::finished, [&finished] { finished = true; });
        worker.process();
        return finished;
    }

    QByteArray contents(const QString &path)
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
    }

    QByteArray pending()
    {
        fcntl(pipe_[0], F_SETFL, O_NONBLOCK);
        char bytes[4096];
        const ssize_t n = read(pipe_[0], bytes, sizeof bytes);
        fcntl(pipe_[0], F_SETFL, 0);
        return n > 0 ? QByteArray(bytes, int(n)) : QByteArray();
    }

    QTemporaryDir dir_;
    int pipe_[2] = {-1, -1};
};

TEST_F(ReceiveTest, NothingToReceiveStillCreatesOrTruncatesTheFile)
{
    const QString path = dir_.filePath(QStringLiteral("out"));
    hostSends("later");
    for (const int size : {0, -5}) {
        QFile old(path);
        ASSERT_TRUE(old.open(QIODevice::WriteOnly));
        old.write("old contents");
        old.close();

        EXPECT_TRUE(receive(path, size));
        EXPECT_EQ(contents(path), QByteArray());
    }
    // Nothing was taken from the endpoint.
    EXPECT_EQ(pending(), QByteArray("later"));
}

TEST_F(ReceiveTest, TakesExactlyTheSizeAndStopsEarlyAtTheEndOfData)
{
    QByteArray data(3 * 1024 * 1024 + 7, Qt::Uninitialized);
    for (int i = 0; i < data.size(); ++i)
        data[i] = char(i * 7 + i / 4099);

    const QString full = dir_.filePath(QStringLiteral("full"));
    std::thread host([&] {
        hostSends(data.left(1000));
        std::this_thread::sleep_for(20ms);
        hostSends(data.mid(1000));
        hostSends("next file");
    });
    EXPECT_TRUE(receive(full, data.size()));
    host.join();
    EXPECT_EQ(contents(full), data);
    EXPECT_EQ(pending(), QByteArray("next file"));

    const QString partial = dir_.filePath(QStringLiteral("partial"));
    hostSends(data.left(5000));
    closeWriter();
    LogCapture log;
    EXPECT_TRUE(receive(partial, 10000));
    EXPECT_EQ(contents(partial), data.left(5000));
    EXPECT_TRUE(log.contains("file receive ended early: got 5000 of 10000 bytes"))
        << log.messages().join('\n').toStdString();
}

TEST_F(ReceiveTest, UnwritableFileStillConsumesTheData)
{
    LogCapture log;
    hostSends(QByteArray(3000, 'a') + "rest");
    EXPECT_TRUE(receive(dir_.filePath(QStringLiteral("no/such/dir/file")), 3000));
    EXPECT_EQ(pending(), QByteArray("rest"));
    EXPECT_TRUE(log.contains("cannot open"));
}

TEST_F(ReceiveTest, OverlappingReceivesTakeTheStreamOneAfterTheOther)
{
    constexpr int kSize = 64 * 1024;
    QByteArray stream(2 * kSize, Qt::Uninitialized);
    for (int i = 0; i < stream.size(); ++i)
        stream[i] = char(i / 3 + i / 1021);

    const QString first = dir_.filePath(QStringLiteral("first"));
    const QString second = dir_.filePath(QStringLiteral("second"));
    std::thread a([&] { receive(first, kSize); });
    std::thread b([&] { receive(second, kSize); });
    // Small pieces with pauses give unserialised readers every chance to interleave.
    for (int offset = 0; offset < stream.size(); offset += 512) {
        hostSends(stream.mid(offset, 512));
        std::this_thread::sleep_for(200us);
    }
    a.join();
    b.join();

    const QByteArray head = stream.left(kSize);
    const QByteArray tail = stream.mid(kSize);
    const QByteArray one = contents(first);
    const QByteArray two = contents(second);
    EXPECT_TRUE((one == head && two == tail) || (one == tail && two == head));
}

} // namespace
