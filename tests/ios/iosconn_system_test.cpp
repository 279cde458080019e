// The MFi transport through the stand-in library to the emulated iOS peer. Runs inside the
// device emulator (see CMakeLists.txt), drives IOSConn directly and reads what the peer
// received with usbd-emuctl. Environment: USBD_EMUCTL, USBD_EMU_NAME.

#include <gtest/gtest.h>

#include <pthread.h>
#include <signal.h>

#include <chrono>
#include <thread>

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>

#include <arvo_hal.h>
#include <libiosconn.h>

#include "ffs_function.h"
#include "iosconn.h"
#include "usbdbuffer.h"
#include "usbdbufferlist.h"

namespace {

constexpr char kCapture[] = "/tmp/ios.capture";
constexpr char kFile[] = "/tmp/ios-source.bin";

class Request : public UsbDBufferList {
public:
    using UsbDBufferList::UsbDBufferList;
    void success() override {}
    void fail() override {}
};

QByteArray pattern(int size, int seed)
{
    QByteArray data(size, Qt::Uninitialized);
    // Through a plain pointer: QByteArray's operator[] checks for sharing on every byte, which
    // costs seconds for the larger patterns in the sanitizer builds.
    char *out = data.data();
    for (int i = 0; i < size; ++i)
        out[i] = char(i * 7 + seed * 31 + i / 251);
    return data;
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

QJsonObject emuctlJson(const std::string &args)
{
    return QJsonDocument::fromJson(QByteArray::fromStdString(usbdtest::emuctlOutput(args)))
        .object();
}

QJsonArray arrivals()
{
    return emuctlJson("ios-log --json").value("arrivals").toArray();
}

template <typename Predicate>
bool waitFor(Predicate done)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!done() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return done();
}

// Frames as "offset+length/total:result", records as "kind@request offset/total:result".
QStringList layout()
{
    QStringList out;
    for (const QJsonValue &v : arrivals()) {
        const QJsonObject a = v.toObject();
        const QString total = QString::number(a.value("total").toInt());
        const QString result = a.value("result").toString();
        if (a.value("kind").toString() == "frame")
            out << QString::number(a.value("offset").toInt()) + "+"
                       + QString::number(a.value("length").toInt()) + "/" + total + ":" + result;
        else
            out << a.value("kind").toString() + "@"
                       + QString::number(a.value("request_offset").toInt()) + "/" + total + ":"
                       + result;
    }
    return out;
}

class IosTransport : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(usbdtest::emuctl("ios mfi") && usbdtest::emuctl("ios-release")
                    && usbdtest::emuctl("ios-reset")
                    && usbdtest::emuctl(std::string("ios-capture ") + kCapture));
    }

    bool send(const QList<UsbDBuffer *> &buffers)
    {
        Request request(buffers);
        return conn_.transfer(&request);
    }

    IOSConn conn_{nullptr};
};

TEST_F(IosTransport, MemoryGoesOutInFramesThenItsPadding)
{
    const QByteArray data = pattern(300000, 1);
    ASSERT_TRUE(send({new UsbDBufferMem(data, 0, 300000, 0, 16, 0, nullptr)}));
    EXPECT_EQ(layout(), QStringList({"0+131040/300016:accepted", "131040+131040/300016:accepted",
                                     "262080+37920/300016:accepted", "300000+16/300016:accepted"}));
    for (const QJsonValue &v : arrivals()) {
        EXPECT_EQ(v.toObject().value("marker").toInt(), 0x1FF);
        EXPECT_EQ(v.toObject().value("header_bytes").toInt(), 32);
    }
    EXPECT_EQ(readFile(kCapture), data + QByteArray(16, 0));
}

TEST_F(IosTransport, PartialFramesAndRetries)
{
    const QByteArray first = pattern(5000, 2);
    ASSERT_TRUE(usbdtest::emuctl("ios-partial 1000"));
    ASSERT_TRUE(send({new UsbDBufferMem(first, 0, 5000, 0, 0, 0, nullptr)}));
    EXPECT_EQ(layout(), QStringList({"0+5000/5000:partial", "1000+4000/5000:accepted"}));

    // Six failures in a row are retried; a seventh ends the request.
    const QByteArray second = pattern(100, 3);
    ASSERT_TRUE(usbdtest::emuctl("ios-reset") && usbdtest::emuctl("ios-fail 6"));
    ASSERT_TRUE(send({new UsbDBufferMem(second, 0, 100, 0, 0, 0, nullptr)}));
    QStringList expected;
    for (int i = 0; i < 6; ++i)
        expected << "0+100/100:failed";
    EXPECT_EQ(layout(), expected + QStringList({"0+100/100:accepted"}));
    ASSERT_TRUE(usbdtest::emuctl("ios-reset") && usbdtest::emuctl("ios-fail 7"));
    EXPECT_FALSE(send({new UsbDBufferMem(second, 0, 100, 0, 0, 0, nullptr)}));
    EXPECT_EQ(layout(), expected + QStringList({"0+100/100:failed"}));
    EXPECT_EQ(readFile(kCapture), first + second);
}

TEST_F(IosTransport, BuffersOfEveryKindInOneRequest)
{
    const QByteArray memory = pattern(1000, 4);
    const QByteArray file = pattern(5000, 5);
    const QByteArray shared = pattern(8192, 6);
    QFile out(kFile);
    ASSERT_TRUE(out.open(QIODevice::WriteOnly) && out.write(file) == file.size());
    out.close();
    arvo_hal_handle_t ion = 0;
    arvo_hal_mem_t mem = 0;
    uint8_t *base = nullptr;
    uint64_t handle = 0;
    ASSERT_EQ(arvo_hal_initialize(nullptr), ARVO_HAL_OK);
    const int opened = arvo_hal_device_open("/dev/ion", nullptr, &ion);
    ASSERT_TRUE(opened == ARVO_HAL_OK || opened == ARVO_HAL_ERR_ALREADY_OPEN);
    ASSERT_EQ(arvo_hal_mem_alloc(ion, &mem, 8192, 4096, 0, 0), ARVO_HAL_OK);
    ASSERT_EQ(arvo_hal_mem_map(mem, &base), ARVO_HAL_OK);
    memcpy(base, shared.constData(), 8192);
    ASSERT_EQ(arvo_hal_mem_share(mem, &handle), ARVO_HAL_OK);

    ASSERT_TRUE(send({new UsbDBufferMem(memory, 0, 1000, 0, 24, 7, nullptr),
                      new UsbDBufferPath(kFile, 100, 3000, 0, 8, 7, nullptr),
                      new UsbDBufferArvoHandle(handle, 512, 4096, 0, 0, false, 7, nullptr)}));
    EXPECT_EQ(layout(), QStringList({"0+1000/8128:accepted", "1000+24/8128:accepted",
                                     "file@1024/8128:accepted", "shm@4032/8128:accepted"}));
    const QJsonArray got = arrivals();
    const QJsonObject fileRecord = got.at(2).toObject();
    const QJsonObject shmRecord = got.at(3).toObject();
    EXPECT_EQ(fileRecord.value("path").toString(), kFile);
    EXPECT_EQ(fileRecord.value("file_offset").toInt(), 100);
    EXPECT_EQ(fileRecord.value("padding").toInt(), 8);
    EXPECT_EQ(shmRecord.value("offset").toInt(), 512);
    EXPECT_EQ(shmRecord.value("handle").toVariant().toULongLong(), handle);
    for (const QJsonValue &v : got)
        EXPECT_EQ(v.toObject().value("session").toInt(), 7);
    EXPECT_EQ(readFile(kCapture), memory + QByteArray(24, 0) + file.mid(100, 3000)
                                      + QByteArray(8, 0) + shared.mid(512, 4096));

    // What the library cannot read is refused before anything reaches the peer; an empty
    // request needs no call at all; without a link nothing is sent.
    ASSERT_TRUE(usbdtest::emuctl("ios-reset"));
    EXPECT_FALSE(send({new UsbDBufferPath(kFile, 4000, 1001, 0, 0, 0, nullptr)}));
    EXPECT_FALSE(send({new UsbDBufferArvoHandle(handle, 4096, 4097, 0, 0, false, 0, nullptr)}));
    EXPECT_TRUE(send({}));
    ASSERT_TRUE(usbdtest::emuctl("ios none"));
    EXPECT_FALSE(send({new UsbDBufferMem(memory, 0, 10, 0, 0, 0, nullptr)}));
    EXPECT_EQ(layout(), QStringList());
    arvo_hal_mem_free(mem);
}

TEST_F(IosTransport, HeldAnswerIsInterruptedAndTheLinkStaysReadable)
{
    // The daemon's transfer thread: a do-nothing SIGUSR1 handler without SA_RESTART.
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    QFile out(kFile);
    ASSERT_TRUE(out.open(QIODevice::WriteOnly) && out.write(pattern(64, 8)) == 64);
    out.close();

    ASSERT_TRUE(usbdtest::emuctl("ios-block"));
    bool sent = true;
    std::thread sender([&] { sent = send({new UsbDBufferPath(kFile, 0, 64, 0, 0, 0, nullptr)}); });
    EXPECT_TRUE(waitFor([] {
        return emuctlJson("status --json").value("ios_peer").toObject().value("held").toInt() == 1;
    }));
    // The watcher's poll does not wait for the send in progress.
    EXPECT_EQ(iosconn_isconnect(1), IOSCONN_MFI);
    pthread_kill(sender.native_handle(), SIGUSR1);
    sender.join();
    EXPECT_FALSE(sent);
    // The peer notices the library's hang-up on its own time.
    EXPECT_TRUE(waitFor([] { return !layout().isEmpty(); }));
    EXPECT_EQ(layout(), QStringList({"file@0/64:interrupted"}));

    ASSERT_TRUE(usbdtest::emuctl("ios-release"));
    EXPECT_TRUE(send({new UsbDBufferPath(kFile, 0, 64, 0, 0, 0, nullptr)}));
    EXPECT_EQ(readFile(kCapture), pattern(64, 8));
}

} // namespace
