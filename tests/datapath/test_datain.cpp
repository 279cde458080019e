// The transfer queue's choice of transport and its order, and the file receiver's limits.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <thread>

#include <QFile>
#include <QTemporaryDir>

#include "conn.h"
#include "datapath_fakes.h"
#include "transferthread.h"
#include "usbdatain.h"

namespace {

using namespace std::chrono_literals;

// A transport for the given link types whose transfers all end with `result`.
class TestConn : public Conn {
    Q_OBJECT
public:
    TestConn(std::vector<int> types, bool result)
        : Conn(nullptr),
          types_(std::move(types)),
          result_(result)
    {
    }
    bool supportsLinkType(OstrTypes::E_LinkType type) override
    {
        return std::find(types_.begin(), types_.end(), int(type)) != types_.end();
    }
    bool start() override { return true; }
    bool stop() override { return true; }
    bool transfer(UsbDBufferList *) override
    {
        ++transfers;
        std::this_thread::yield();
        return result_;
    }
    std::atomic<int> transfers{0};

private:
    std::vector<int> types_;
    bool result_;
};

// With no worker recorded, nothing may be signalled: SIGUSR1's default action would end the
// process. (pthread_kill to a thread of this process is delivered before it returns.)
TEST(TransferQueue, InterruptBeforeTheWorkerStartsSignalsNothing)
{
    UsbDataIn(QList<Conn *>()).interrupt();
    TransferThread transferThread;
    UsbDataIn queue({});
    queue.setTransferThread(&transferThread);
    queue.interrupt();
}

TEST(TransferQueue, LinkTypeChoosesTheTransportAndProducersKeepTheirOrder)
{
    auto *ios = new TestConn({2, 3}, false);
    auto *usb = new TestConn({1}, true);
    UsbDataIn queue({ios, usb});
    std::thread worker([&queue] { queue.process(); });
    Recorder recorder;
    LogCapture log;

    queue.send_data(new TestList(-1, &recorder)); // no link: fails without a transport
    ASSERT_TRUE(recorder.waitDeleted(1));
    queue.setLinkType(OstrTypes::LinkTypeMfi); // iOS only, and it fails
    queue.send_data(new TestList(-2, &recorder));
    ASSERT_TRUE(recorder.waitDeleted(2));
    EXPECT_EQ(recorder.outcome(-1), Recorder::Failed);
    EXPECT_EQ(recorder.outcome(-2), Recorder::Failed);
    EXPECT_EQ(ios->transfers, 1);
    EXPECT_EQ(usb->transfers, 0);
    EXPECT_FALSE(log.contains("transfer time"));

    queue.setLinkType(OstrTypes::LinkTypeUsb);
    constexpr int kEach = 300;
    auto produce = [&](int first) {
        for (int id = first; id < first + kEach; ++id)
            EXPECT_TRUE(queue.send_data(new TestList(id, &recorder)));
    };
    std::thread a(produce, 0);
    std::thread b(produce, 10000);
    a.join();
    b.join();
    ASSERT_TRUE(recorder.waitDeleted(2 + 2 * kEach));
    queue.quit();
    worker.join();

    int next[2] = {0, 10000};
    for (const int id : recorder.order()) {
        if (id < 0)
            continue;
        EXPECT_EQ(id, next[id / 10000]++);
        EXPECT_EQ(recorder.outcome(id), Recorder::Succeeded);
    }
    EXPECT_EQ(next[0], kEach);
    EXPECT_EQ(next[1], 10000 + kEach);
    EXPECT_EQ(ios->transfers, 1);
    EXPECT_EQ(log.messages().filter("transfer time: ").size(), 2 * kEach);
}

// Requests waiting when the link type changes are dropped unanswered (and released); the same
// link type again leaves them where they are.
TEST(TransferQueue, OnlyAChangeOfLinkTypeDropsTheWaitingRequests)
{
    UsbDataIn queue({new TestConn({1}, true)});
    Recorder recorder;
    queue.send_data(new TestList(1, &recorder));
    queue.setLinkType(OstrTypes::LinkTypeUsb);
    EXPECT_TRUE(recorder.wasDeleted(1));
    EXPECT_EQ(recorder.outcome(1), Recorder::None);

    queue.send_data(new TestList(2, &recorder));
    queue.setLinkType(OstrTypes::LinkTypeUsb);
    EXPECT_FALSE(recorder.wasDeleted(2));
    std::thread worker([&queue] { queue.process(); });
    ASSERT_TRUE(recorder.waitDeleted(2));
    EXPECT_EQ(recorder.outcome(2), Recorder::Succeeded);
    queue.quit();
    worker.join();
}

TEST(FileReceive, NegativeSizeUnwritableFileAndOverlappingReceives)
{
    QTemporaryDir dir;
    int host[2];
    ASSERT_EQ(pipe(host), 0);
    fcntl(host[1], F_SETPIPE_SZ, 1024 * 1024);
    auto receive = [&](const QString &name, int size) {
        usbd_worker(host[0], dir.filePath(name), size, nullptr).process();
    };
    auto read = [&](const QString &name) {
        QFile file(dir.filePath(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
    };

    ASSERT_EQ(write(host[1], "0123456789", 10), 10);
    receive(QStringLiteral("negative"), -5); // takes nothing
    EXPECT_EQ(read(QStringLiteral("negative")), QByteArray());
    // The bytes meant for a file that cannot be written are still taken from the endpoint.
    receive(QStringLiteral("no/such/dir"), 4);
    receive(QStringLiteral("rest"), 6);
    EXPECT_EQ(read(QStringLiteral("rest")), QByteArray("456789"));

    // Two receives at once take the stream one after the other, never interleaved.
    constexpr int kSize = 64 * 1024;
    QByteArray stream(2 * kSize, Qt::Uninitialized);
    for (int i = 0; i < stream.size(); ++i)
        stream[i] = char(i / 3 + i / 1021);
    std::thread first([&] { receive(QStringLiteral("first"), kSize); });
    std::thread second([&] { receive(QStringLiteral("second"), kSize); });
    const std::string bytes = stream.toStdString();
    for (size_t at = 0; at < bytes.size(); at += 512) {
        ASSERT_EQ(write(host[1], bytes.data() + at, 512), 512);
        std::this_thread::sleep_for(100us);
    }
    first.join();
    second.join();
    const QByteArray one = read(QStringLiteral("first"));
    const QByteArray two = read(QStringLiteral("second"));
    EXPECT_TRUE(one + two == stream || two + one == stream);
    close(host[0]);
    close(host[1]);
}

} // namespace

#include "test_datain.moc"
