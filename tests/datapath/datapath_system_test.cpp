// The data path on the emulated FunctionFS: this binary runs inside the device emulator in the
// daemon's place (see CMakeLists.txt), brings the function up, plays the host with usbd-emuctl
// and checks what the host received byte for byte. Environment: USBD_EMUCTL, USBD_EMU_NAME.

#include <gtest/gtest.h>

#include <thread>

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "datapath_fakes.h"
#include "ffs_function.h"
#include "usbconn.h"
#include "transferthread.h"
#include "usbdatain.h"

namespace {

using namespace std::chrono_literals;

constexpr char kCapture[] = "/tmp/ep3.capture";
constexpr int kMiB = 1024 * 1024;

QByteArray pattern(int size, int seed)
{
    QByteArray data(size, Qt::Uninitialized);
    // Through a plain pointer: QByteArray's operator[] checks for sharing on every byte, which
    // costs seconds for the larger patterns in the sanitizer builds.
    char *out = data.data();
    for (int i = 0; i < size; ++i)
        out[i] = char(i * 13 + seed * 101 + i / 509);
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

// A counter of one endpoint ("ep1", "ep3") from `usbd-emuctl status --json`; -1 if unknown.
int counter(const char *file, const char *key)
{
    const QByteArray status = QByteArray::fromStdString(usbdtest::emuctlOutput("status --json"));
    for (const QJsonValue &endpoint :
         QJsonDocument::fromJson(status).object().value("endpoints").toArray()) {
        if (endpoint.toObject().value("file").toString() == QLatin1String(file))
            return endpoint.toObject().value(QLatin1String(key)).toInt(-1);
    }
    return -1;
}

class DataPathSystem : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string why;
        ASSERT_TRUE(usbdtest::bringUpFunction(&function_, &why)) << why;
        ASSERT_TRUE(usbdtest::emuctl(std::string("capture ") + kCapture));
        ASSERT_TRUE(usbdtest::emuctl("plug"));
        // The daemon's transfer queue over the real endpoint, with its worker running.
        auto *usb = new USBConn(function_.ep3.get(), true, nullptr);
        usb->setTransferThread(&transferThread_);
        queue_ = std::make_unique<UsbDataIn>(QList<Conn *>{usb});
        queue_->setTransferThread(&transferThread_);
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
    TransferThread transferThread_;
    std::unique_ptr<UsbDataIn> queue_;
    std::thread worker_;
    Recorder recorder_;
};

TEST_F(DataPathSystem, RequestsReachTheHostByteForByteInLimitedCalls)
{
    const QByteArray content = pattern(kMiB + 3, 2);
    const QString path = QStringLiteral("/tmp/source.bin");
    ASSERT_TRUE(writeFile(path, content));
    QByteArray expected;
    // `count` buffers of `size` bytes and `padding`, added to `expected` when they should arrive.
    auto buffers = [&expected](int count, int size, quint32 padding, bool arrives) {
        QList<UsbDBuffer *> list;
        for (int i = 0; i < count; ++i) {
            const QByteArray piece = pattern(size, i);
            list.append(memory(piece, padding));
            expected += arrives ? piece + QByteArray(int(padding), '\0') : QByteArray();
        }
        return list;
    };

    queue_->send_data(new TestList(0, &recorder_, buffers(1, 5, 0, false))); // no link yet
    ASSERT_TRUE(recorder_.waitDeleted(1));
    queue_->setLinkType(OstrTypes::LinkTypeUsb);
    const QList<UsbDBuffer *> mixed = buffers(1, 20 * kMiB, 0, true)
                                      << new UsbDBufferPath(path, 100, 700000, 0, 12, 0, nullptr);
    expected += content.mid(100, 700000) + QByteArray(12, '\0');
    queue_->send_data(new TestList(1, &recorder_, mixed + buffers(1, 4, 3, true)));
    queue_->send_data(new TestList(2, &recorder_, buffers(32, 1000, 0, true)));
    queue_->send_data(new TestList(3, &recorder_, buffers(33, 10, 0, false)));
    queue_->send_data(new TestList(4, &recorder_, buffers(17, 10, 1, false)));
    queue_->send_data(new TestList(5, &recorder_, buffers(16, 300, 7, true)));
    // A file range past the file's end fails the request before any of it goes out.
    queue_->send_data(new TestList(6, &recorder_,
                                   buffers(1, 5, 0, false)
                                       << new UsbDBufferPath(path, kMiB, 4, 0, 0, 0, nullptr)));

    ASSERT_TRUE(recorder_.waitDeleted(7));
    for (int id = 0; id < 7; ++id) {
        const bool sent = id == 1 || id == 2 || id == 5;
        EXPECT_EQ(recorder_.outcome(id), sent ? Recorder::Succeeded : Recorder::Failed) << id;
    }
    const QByteArray captured = readFile(kCapture);
    EXPECT_EQ(captured.size(), expected.size());
    EXPECT_TRUE(captured == expected);
    // Request 1 in calls of 8, 8 and 4 MiB + the rest; one call each for requests 2 and 5.
    EXPECT_EQ(counter("ep3", "writes"), 5);
}

TEST_F(DataPathSystem, ShortWriteIsContinuedAtTheFirstByteNotTaken)
{
    queue_->setLinkType(OstrTypes::LinkTypeUsb);
    const QByteArray first = pattern(300000, 3);
    const QByteArray second = pattern(100, 4);
    ASSERT_TRUE(usbdtest::emuctl("short 1000"));
    queue_->send_data(new TestList(1, &recorder_, {memory(first, 5), memory(second)}));
    ASSERT_TRUE(recorder_.waitDeleted(1));
    EXPECT_EQ(recorder_.outcome(1), Recorder::Succeeded);
    EXPECT_TRUE(readFile(kCapture) == first + QByteArray(5, '\0') + second);
    EXPECT_EQ(counter("ep3", "writes"), 2);

    // A call that takes nothing is not an error either: the next one starts at the same byte.
    ASSERT_TRUE(usbdtest::emuctl("short 0"));
    queue_->send_data(new TestList(2, &recorder_, {memory(second)}));
    ASSERT_TRUE(recorder_.waitDeleted(2));
    EXPECT_EQ(recorder_.outcome(2), Recorder::Succeeded);
    EXPECT_TRUE(readFile(kCapture) == first + QByteArray(5, '\0') + second + second);
    EXPECT_EQ(counter("ep3", "writes"), 4);
}

TEST_F(DataPathSystem, StalledHostLinkChangeAndInterrupt)
{
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

    // The request in flight stays in its write until interrupted, then fails: one signal
    // while the write blocks is enough.
    EXPECT_FALSE(recorder_.wasDeleted(1));
    queue_->interrupt();
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
    EXPECT_TRUE(receive(out, 10));
    EXPECT_EQ(readFile(out), sent.right(5));
}

} // namespace
