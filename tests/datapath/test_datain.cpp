// The transfer queue: which transport a request goes to, in which order, and what becomes of
// requests that a link change drops or an interrupt cuts short.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>

#include "conn.h"
#include "datapath_fakes.h"
#include "fake_endpoint.h"
#include "usbconn.h"
#include "usbdatain.h"

namespace {

using namespace std::chrono_literals;

// A transport that serves the given link types and answers transfer() as the test says.
class TestConn : public Conn {
    Q_OBJECT
public:
    TestConn(std::vector<int> types, std::function<bool(UsbDBufferList *)> transfer)
        : Conn(nullptr), types_(std::move(types)), transfer_(std::move(transfer))
    {
    }

    bool supportsLinkType(OstrTypes::E_LinkType type) override
    {
        return std::find(types_.begin(), types_.end(), int(type)) != types_.end();
    }
    bool start() override { return true; }
    bool stop() override { return true; }
    bool transfer(UsbDBufferList *request) override
    {
        ++transfers;
        return transfer_(request);
    }

    std::atomic<int> transfers{0};

private:
    std::vector<int> types_;
    std::function<bool(UsbDBufferList *)> transfer_;
};

// Runs a queue's worker loop on a thread of its own for the life of the object.
class Worker {
public:
    explicit Worker(UsbDataIn *queue) : queue_(queue), thread_([queue] { queue->process(); }) {}
    ~Worker()
    {
        queue_->quit();
        thread_.join();
    }

private:
    UsbDataIn *queue_;
    std::thread thread_;
};

// A gate that a transport waits at, to hold a request in flight.
class Gate {
public:
    void wait()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        entered_ = true;
        changed_.notify_all();
        changed_.wait(lock, [this] { return open_; });
    }
    bool waitEntered()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, 10s, [this] { return entered_; });
    }
    void open()
    {
        std::lock_guard<std::mutex> guard(mutex_);
        open_ = true;
        changed_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool entered_ = false;
    bool open_ = false;
};

// Runs first: no worker has recorded its thread yet, so nothing may be signalled (SIGUSR1's
// default action would end this test process).
TEST(TransferQueueTest, InterruptBeforeTheWorkerStartsSignalsNothing)
{
    UsbDataIn queue({});
    queue.interrupt();
    std::this_thread::sleep_for(50ms);
    SUCCEED();
}

TEST(TransferQueueTest, TheLinkTypeChoosesTheTransport)
{
    fake_endpoint::reset();
    Recorder recorder;
    auto *ios = new TestConn({2, 3}, [](UsbDBufferList *) { return false; });
    auto *usb = new USBConn(fake_endpoint::fd(), true, nullptr);
    UsbDataIn queue({ios, usb});
    Worker worker(&queue);
    LogCapture log;

    // No link: fails at once, nothing written, no timing line.
    queue.send_data(new TestList(1, &recorder, {new TestBuffer("abc")}));
    ASSERT_TRUE(recorder.waitDeleted(1));
    EXPECT_EQ(recorder.outcome(1), Recorder::Failed);
    EXPECT_EQ(ios->transfers, 0);
    EXPECT_TRUE(fake_endpoint::calls().empty());
    EXPECT_FALSE(log.contains("transfer time"));

    // USB: the USB transport sends it, the iOS one is not asked.
    queue.setLinkType(OstrTypes::LinkTypeUsb);
    queue.send_data(new TestList(2, &recorder, {new TestBuffer("def")}));
    ASSERT_TRUE(recorder.waitDeleted(2));
    EXPECT_EQ(recorder.outcome(2), Recorder::Succeeded);
    EXPECT_EQ(fake_endpoint::captured(), "def");
    EXPECT_EQ(ios->transfers, 0);
    EXPECT_EQ(log.count("transfer time: "), 1);

    // MFi and Wi-Fi: only the iOS transport is asked; its failure fails the request.
    int deleted = 2;
    for (const auto type : {OstrTypes::LinkTypeMfi, OstrTypes::LinkTypeWifi}) {
        queue.setLinkType(type);
        queue.send_data(new TestList(3 + int(type), &recorder, {new TestBuffer("ghi")}));
        ASSERT_TRUE(recorder.waitDeleted(++deleted));
    }
    EXPECT_EQ(recorder.outcome(5), Recorder::Failed);
    EXPECT_EQ(recorder.outcome(6), Recorder::Failed);
    EXPECT_EQ(ios->transfers, 2);
    EXPECT_EQ(fake_endpoint::captured(), "def");
    EXPECT_EQ(log.count("transfer time: "), 1);
}

TEST(TransferQueueTest, RequestsGoOutInTheOrderEachProducerQueuedThem)
{
    constexpr int kPerProducer = 400;
    Recorder recorder;
    auto *conn = new TestConn({1}, [](UsbDBufferList *) {
        std::this_thread::yield();
        return true;
    });
    UsbDataIn queue({conn});
    queue.setLinkType(OstrTypes::LinkTypeUsb);
    Worker worker(&queue);

    auto produce = [&](int first) {
        for (int i = 0; i < kPerProducer; ++i)
            EXPECT_TRUE(queue.send_data(new TestList(first + i, &recorder)));
    };
    std::thread a(produce, 0);
    std::thread b(produce, 100000);
    a.join();
    b.join();
    ASSERT_TRUE(recorder.waitDeleted(2 * kPerProducer));

    const std::vector<int> order = recorder.completionOrder();
    ASSERT_EQ(order.size(), size_t(2 * kPerProducer));
    int lastA = -1;
    int lastB = 99999;
    for (const int id : order) {
        int &last = id < 100000 ? lastA : lastB;
        EXPECT_EQ(id, last + 1);
        last = id;
        EXPECT_EQ(recorder.completions(id), 1);
    }
}

TEST(TransferQueueTest, ALinkChangeDropsAndReleasesWaitingRequests)
{
    Recorder recorder;
    Gate gate;
    auto *conn = new TestConn({1}, [&gate](UsbDBufferList *request) {
        if (static_cast<TestList *>(request)->id() == 1)
            gate.wait();
        return true;
    });
    UsbDataIn queue({conn});
    queue.setLinkType(OstrTypes::LinkTypeUsb);
    Worker worker(&queue);

    queue.send_data(new TestList(1, &recorder));
    ASSERT_TRUE(gate.waitEntered());
    std::vector<int> bufferDeleted;
    auto *buffer = new TestBuffer("x");
    buffer->onDelete = [&bufferDeleted] { bufferDeleted.push_back(2); };
    queue.send_data(new TestList(2, &recorder, {buffer}));
    queue.send_data(new TestList(3, &recorder));

    // The same type again changes nothing.
    queue.setLinkType(OstrTypes::LinkTypeUsb);
    EXPECT_FALSE(recorder.wasDeleted(2));

    // Another type drops both waiting requests, without an answer but with their buffers.
    queue.setLinkType(OstrTypes::LinkTypeMfi);
    EXPECT_TRUE(recorder.wasDeleted(2));
    EXPECT_TRUE(recorder.wasDeleted(3));
    EXPECT_EQ(bufferDeleted, std::vector<int>{2});
    EXPECT_EQ(recorder.outcome(2), Recorder::None);
    EXPECT_EQ(recorder.outcome(3), Recorder::None);

    // The request in flight finishes as it started, on the USB transport.
    gate.open();
    ASSERT_TRUE(recorder.waitDeleted(3));
    EXPECT_EQ(recorder.outcome(1), Recorder::Succeeded);
    EXPECT_EQ(conn->transfers, 1);
}

TEST(TransferQueueTest, InterruptFailsTheTransferInProgress)
{
    // A pipe nobody reads stands for a stalled host: once full, writev() blocks until a signal.
    int pipeEnds[2];
    ASSERT_EQ(pipe(pipeEnds), 0);
    fcntl(pipeEnds[1], F_SETFL, O_NONBLOCK);
    const QByteArray filler(65536, 'f');
    while (write(pipeEnds[1], filler.constData(), size_t(filler.size())) > 0) {
    }
    fcntl(pipeEnds[1], F_SETFL, 0);

    Recorder recorder;
    UsbDataIn queue({new USBConn(pipeEnds[1], true, nullptr)});
    queue.setLinkType(OstrTypes::LinkTypeUsb);
    LogCapture log;
    {
        Worker worker(&queue);
        queue.send_data(new TestList(1, &recorder, {new TestBuffer(QByteArray(4096, 'd'))}));
        // A signal may land before the worker reaches writev(); repeat until it has effect.
        for (int i = 0; i < 200 && !recorder.wasDeleted(1); ++i) {
            queue.interrupt();
            std::this_thread::sleep_for(20ms);
        }
        ASSERT_TRUE(recorder.waitDeleted(1));
        EXPECT_EQ(recorder.outcome(1), Recorder::Failed);
        EXPECT_TRUE(log.contains(QStringLiteral("usbconn: writev() failed: %1").arg(EINTR)));

        // The worker goes on with the next request once the host reads again.
        fcntl(pipeEnds[0], F_SETFL, O_NONBLOCK);
        char sink[65536];
        while (read(pipeEnds[0], sink, sizeof sink) > 0) {
        }
        queue.send_data(new TestList(2, &recorder, {new TestBuffer("next")}));
        ASSERT_TRUE(recorder.waitDeleted(2));
        EXPECT_EQ(recorder.outcome(2), Recorder::Succeeded);
        EXPECT_EQ(read(pipeEnds[0], sink, sizeof sink), 4);
    }
    // The worker has ended: an interrupt now reaches no thread.
    queue.interrupt();
    close(pipeEnds[0]);
    close(pipeEnds[1]);
}

} // namespace

#include "test_datain.moc"
