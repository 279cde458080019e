// The data path on the emulated FunctionFS: this binary runs inside the device emulator in the
// daemon's place (see CMakeLists.txt), brings the function up, plays the host with usbd-emuctl
// and checks what the host received byte for byte. Environment: USBD_EMUCTL, USBD_EMU_NAME.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <thread>

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "datapath_fakes.h"
#include "ffs_function.h"
#include "usbconn.h"
#include "usbdatain.h"

namespace {

using namespace std::chrono_literals;

constexpr char kCapture[] = "/tmp/ep3.capture";
constexpr int kMiB = 1024 * 1024;

QByteArray pattern(int size, int seed)
{
    QByteArray data(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        data[i] = char(i * 13 + seed * 101 + i / 509);
    return data;
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

bool writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

// The emulator's view of one endpoint ("ep1", "ep3"), from `usbd-emuctl status --json`.
QJsonObject endpointStatus(const char *file)
{
    const char *name = std::getenv("USBD_EMU_NAME");
    const char *tool = std::getenv("USBD_EMUCTL");
    if (name == nullptr || tool == nullptr)
        return {};
    const std::string command = std::string(tool) + " --name " + name + " status --json";
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        return {};
    QByteArray output;
    char chunk[4096];
    for (size_t n; (n = fread(chunk, 1, sizeof chunk, pipe)) > 0;)
        output.append(chunk, int(n));
    pclose(pipe);
    const QJsonArray endpoints = QJsonDocument::fromJson(output).object().value("endpoints").toArray();
    for (const QJsonValue &endpoint : endpoints) {
        if (endpoint.toObject().value("file").toString() == QLatin1String(file))
            return endpoint.toObject();
    }
    return {};
}

int counter(const char *file, const char *key)
{
    return endpointStatus(file).value(QLatin1String(key)).toInt(-1);
}

class DataPathSystem : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string why;
        ASSERT_TRUE(usbdtest::bringUpFunction(&function_, &why)) << why;
        ASSERT_TRUE(usbdtest::emuctl(std::string("capture ") + kCapture));
        ASSERT_TRUE(usbdtest::emuctl("plug"));
    }

    // The daemon's transfer queue over the real endpoint, with its worker running.
    void startQueue()
    {
        queue_ = std::make_unique<UsbDataIn>(
            QList<Conn *>{new USBConn(function_.ep3.get(), true, nullptr)});
        worker_ = std::thread([this] { queue_->process(); });
    }

    void TearDown() override
    {
        if (queue_) {
            queue_->quit();
            worker_.join();
        }
    }

    static UsbDBuffer *memory(const QByteArray &data, quint32 padding = 0)
    {
        return new UsbDBufferMem(data, 0, quint32(data.size()), 0, padding, 0, nullptr);
    }

    usbdtest::FfsFunction function_;
    std::unique_ptr<UsbDataIn> queue_;
    std::thread worker_;
    Recorder recorder_;
};

TEST_F(DataPathSystem, RequestsReachTheHostByteForByteInLimitedCalls)
{
    startQueue();
    const QByteArray big = pattern(20 * kMiB, 1);
    const QByteArray fileContent = pattern(kMiB + 3, 2);
    const QString path = QStringLiteral("/tmp/source.bin");
    ASSERT_TRUE(writeFile(path, fileContent));

    // No link yet: refused without a write.
    queue_->send_data(new TestList(0, &recorder_, {memory("early")}));
    ASSERT_TRUE(recorder_.waitDeleted(1));
    queue_->setLinkType(OstrTypes::LinkTypeUsb);

    QByteArray expected;
    queue_->send_data(new TestList(1, &recorder_,
                                   {memory(big),
                                    new UsbDBufferPath(path, 100, 700000, 0, 12, 0, nullptr),
                                    memory("tail", 3)}));
    expected += big + fileContent.mid(100, 700000) + QByteArray(12, '\0') + "tail"
                + QByteArray(3, '\0');

    QList<UsbDBuffer *> thirtyTwo;
    for (int i = 0; i < 32; ++i) {
        const QByteArray piece = pattern(1000, 10 + i);
        thirtyTwo.append(memory(piece));
        expected += piece;
    }
    queue_->send_data(new TestList(2, &recorder_, thirtyTwo));

    QList<UsbDBuffer *> thirtyThree;
    for (int i = 0; i < 33; ++i)
        thirtyThree.append(memory(pattern(10, i)));
    queue_->send_data(new TestList(3, &recorder_, thirtyThree));

    QList<UsbDBuffer *> seventeenPadded;
    for (int i = 0; i < 17; ++i)
        seventeenPadded.append(memory(pattern(10, i), 1));
    queue_->send_data(new TestList(4, &recorder_, seventeenPadded));

    QList<UsbDBuffer *> sixteenPadded;
    for (int i = 0; i < 16; ++i) {
        const QByteArray piece = pattern(300, 50 + i);
        sixteenPadded.append(memory(piece, quint32(i + 1)));
        expected += piece + QByteArray(i + 1, '\0');
    }
    queue_->send_data(new TestList(5, &recorder_, sixteenPadded));

    // A file range past the file's end is refused before anything of the request goes out.
    queue_->send_data(new TestList(6, &recorder_,
                                   {memory("never"),
                                    new UsbDBufferPath(path, kMiB, 4, 0, 0, 0, nullptr)}));

    ASSERT_TRUE(recorder_.waitDeleted(7));
    EXPECT_EQ(recorder_.outcome(0), Recorder::Failed);
    EXPECT_EQ(recorder_.outcome(1), Recorder::Succeeded);
    EXPECT_EQ(recorder_.outcome(2), Recorder::Succeeded);
    EXPECT_EQ(recorder_.outcome(3), Recorder::Failed);
    EXPECT_EQ(recorder_.outcome(4), Recorder::Failed);
    EXPECT_EQ(recorder_.outcome(5), Recorder::Succeeded);
    EXPECT_EQ(recorder_.outcome(6), Recorder::Failed);

    const QByteArray captured = readFile(kCapture);
    EXPECT_EQ(captured.size(), expected.size());
    EXPECT_TRUE(captured == expected);
    // 20 MiB and the rest of request 1 in calls of 8, 8 and 4 MiB + rest; one call for each of
    // the 32- and 16-buffer requests.
    EXPECT_EQ(counter("ep3", "writes"), 5);
}

TEST_F(DataPathSystem, ShortWriteIsContinuedAtTheFirstByteNotTaken)
{
    startQueue();
    queue_->setLinkType(OstrTypes::LinkTypeUsb);
    const QByteArray first = pattern(300000, 3);
    const QByteArray second = pattern(100, 4);
    ASSERT_TRUE(usbdtest::emuctl("short 1000"));
    queue_->send_data(new TestList(1, &recorder_, {memory(first, 5), memory(second)}));
    ASSERT_TRUE(recorder_.waitDeleted(1));
    EXPECT_EQ(recorder_.outcome(1), Recorder::Succeeded);
    EXPECT_TRUE(readFile(kCapture) == first + QByteArray(5, '\0') + second);
    EXPECT_EQ(counter("ep3", "writes"), 2);
}

TEST_F(DataPathSystem, StalledHostLinkChangeAndInterrupt)
{
    startQueue();
    queue_->setLinkType(OstrTypes::LinkTypeUsb);
    ASSERT_TRUE(usbdtest::emuctl("stall"));
    LogCapture log;

    queue_->send_data(new TestList(1, &recorder_, {memory(pattern(65536, 5))}));
    for (int i = 0; i < 500 && counter("ep3", "waiting") < 1; ++i)
        std::this_thread::sleep_for(10ms);
    ASSERT_GE(counter("ep3", "waiting"), 1);

    // Waiting requests are dropped by a link change: released, never answered.
    queue_->send_data(new TestList(2, &recorder_, {memory("dropped")}));
    queue_->send_data(new TestList(3, &recorder_, {memory("dropped too")}));
    queue_->setLinkType(OstrTypes::LinkTypeMfi);
    EXPECT_TRUE(recorder_.wasDeleted(2));
    EXPECT_TRUE(recorder_.wasDeleted(3));
    EXPECT_EQ(recorder_.outcome(2), Recorder::None);
    EXPECT_EQ(recorder_.outcome(3), Recorder::None);

    // The request in flight stays blocked until interrupted, then fails.
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(recorder_.wasDeleted(1));
    for (int i = 0; i < 200 && !recorder_.wasDeleted(1); ++i) {
        queue_->interrupt();
        std::this_thread::sleep_for(20ms);
    }
    ASSERT_TRUE(recorder_.waitDeleted(3));
    EXPECT_EQ(recorder_.outcome(1), Recorder::Failed);
    EXPECT_TRUE(log.contains(QStringLiteral("usbconn: writev() failed: %1").arg(EINTR)))
        << log.messages().join('\n').toStdString();

    // Back on USB with the host taking data again, the next request goes out alone.
    queue_->setLinkType(OstrTypes::LinkTypeUsb);
    ASSERT_TRUE(usbdtest::emuctl("release"));
    queue_->send_data(new TestList(4, &recorder_, {memory("after")}));
    ASSERT_TRUE(recorder_.waitDeleted(4));
    EXPECT_EQ(recorder_.outcome(4), Recorder::Succeeded);
    EXPECT_EQ(readFile(kCapture), QByteArray("after"));
}

TEST_F(DataPathSystem, FileReceiveFromTheHost)
{
    auto receive = [this](const QString &path, int size) {
        usbd_worker worker(function_.ep1.get(), path, size, nullptr);
        bool finished = false;
        QObject::connect(&worker, &usbd_worker::finished, [&finished] { finished = true; });
        worker.process();
        return finished;
    };
    const QString out = QStringLiteral("/tmp/received.bin");
    const QByteArray sent = pattern(3 * kMiB + 5, 6);
    ASSERT_TRUE(writeFile(QStringLiteral("/tmp/host.bin"), sent));

    // Size 0: the file is created empty and the endpoint is not read.
    ASSERT_TRUE(writeFile(out, "stale"));
    EXPECT_TRUE(receive(out, 0));
    EXPECT_EQ(readFile(out), QByteArray());
    EXPECT_EQ(counter("ep1", "reads"), 0);

    ASSERT_TRUE(usbdtest::emuctl("ep1-push /tmp/host.bin"));
    EXPECT_TRUE(receive(out, 3 * kMiB));
    EXPECT_TRUE(readFile(out) == sent.left(3 * kMiB));

    // Five bytes are left, then the host ends the data: the receive stops short.
    ASSERT_TRUE(usbdtest::emuctl("ep1-eof"));
    LogCapture log;
    EXPECT_TRUE(receive(out, 10));
    EXPECT_EQ(readFile(out), sent.right(5));
    EXPECT_TRUE(log.contains("file receive ended early: got 5 of 10 bytes"))
        << log.messages().join('\n').toStdString();
}

} // namespace
