// The MFi transport against a stand-in for the MFi link library that answers as told: padding
// of every size, a link that takes nothing, totals past 4 GiB, and calls that wait until a
// signal ends them. The library's functions are defined here; this binary does not link the
// project's stand-in.

#include <gtest/gtest.h>

#include <poll.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <functional>
#include <mutex>
#include <thread>

#include <libiosconn.h>

#include "datapath_fakes.h"
#include "iosconn.h"
#include "transferthread.h"
#include "usbdatain.h"

namespace {

struct Frame {
    MfiFrameHeader header;
    int payloadLength;
    bool zeroEnds; // first and last payload byte are zero
};

std::mutex libraryMutex;
std::vector<Frame> frames;
int fileCalls = 0;
// Answer a frame or file call; by default a frame is taken whole and a file record accepted.
std::function<int(int payloadLength)> frameAnswer;
std::function<int()> fileAnswer;

} // namespace

extern "C" {
int iosconn_init(void)
{
    return 0;
}
int iosconn_start(int)
{
    return 0;
}
int iosconn_isconnect(int)
{
    return IOSCONN_MFI;
}
int iosconn_send_file(int, const void *, int)
{
    {
        std::lock_guard<std::mutex> guard(libraryMutex);
        ++fileCalls;
    }
    return fileAnswer ? fileAnswer() : 1;
}
int iosconn_send_shm(int, const void *, int)
{
    return 1;
}
int iosconn_send_with_header(int, const void *header, int headerLength, const void *payload,
                             int payloadLength, int)
{
    Frame frame{};
    memcpy(&frame.header, header, sizeof frame.header);
    frame.payloadLength = payloadLength;
    const auto *bytes = static_cast<const uchar *>(payload);
    frame.zeroEnds = payloadLength > 0 && bytes[0] == 0 && bytes[payloadLength - 1] == 0;
    {
        std::lock_guard<std::mutex> guard(libraryMutex);
        frames.push_back(frame);
    }
    if (frameAnswer)
        return frameAnswer(payloadLength);
    // A frame near 2 GiB would overflow the count; the daemon ignores the padding frame's answer.
    return int(std::min<qint64>(qint64(headerLength) + payloadLength, INT_MAX));
}
}

namespace {

bool send(const QList<UsbDBuffer *> &buffers)
{
    frames.clear();
    fileCalls = 0;
    Recorder recorder;
    TestList request(1, &recorder, buffers);
    return IOSConn(nullptr).transfer(&request);
}

UsbDBuffer *memory(const QByteArray &data, quint32 padding = 0)
{
    return new UsbDBufferMem(data, 0, quint32(data.size()), 0, padding, 0, nullptr);
}

// Padding goes out as one frame of exactly its size, whatever the size, from zero pages that
// cost no memory; it is not retried, its result is ignored, and the request offset moves past
// it whatever the library answered. The request total is the 32-bit sum, wrapping past 4 GiB.
TEST(IosConnFrames, PaddingIsOneFrameAndTotalsWrap)
{
    const QByteArray data(1000, 'd');
    constexpr quint32 kPadding = 0x7FFFFFF0u;
    ASSERT_TRUE(send({memory(data, kPadding), memory(data.left(10))}));
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(frames[1].header.offset, 1000u);
    EXPECT_EQ(quint32(frames[1].payloadLength), kPadding);
    EXPECT_TRUE(frames[1].zeroEnds);
    EXPECT_EQ(frames[2].header.offset, 1000u + kPadding);
    for (const Frame &frame : frames)
        EXPECT_EQ(frame.header.total, 1000u + kPadding + 10u);

    // A padding frame the library refuses is not sent again and does not fail the request.
    frameAnswer = [](int payloadLength) { return payloadLength == 16 ? -1 : 32 + payloadLength; };
    ASSERT_TRUE(send({memory(data.left(5), 16), memory(data.left(7))}));
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(frames[2].header.offset, 21u);
    frameAnswer = nullptr;

    // Three buffers of 2 GiB of padding each: 6 GiB, told as its low 32 bits.
    ASSERT_TRUE(send({memory(data.left(10), 0x7FFFFFFFu), memory(data.left(10), 0x7FFFFFFFu),
                      memory(data.left(10), 0x7FFFFFFFu)}));
    ASSERT_EQ(frames.size(), 6u);
    EXPECT_EQ(frames[0].header.total, quint32(3 * (10 + quint64(0x7FFFFFFFu))));
    EXPECT_EQ(frames[5].header.offset, quint32(2 * (10 + quint64(0x7FFFFFFFu)) + 10));

    // Negative as the D-Bus interface's signed count: refused before any call.
    LogCapture log;
    EXPECT_FALSE(send({memory(data.left(5)), memory(data.left(5), 0x80000000u)}));
    EXPECT_TRUE(frames.empty());
    EXPECT_TRUE(log.contains("failed to map buffer"));
}

// A frame of which the library took no payload (it answered the header's 32) is progress: the
// failure count starts again and the frame is offered again. Failures (results below 32) are
// retried six times; the seventh in a row ends the request.
TEST(IosConnFrames, RetryRule)
{
    const QByteArray data(100, 'b');
    int answers = 0;
    frameAnswer = [&answers](int payloadLength) {
        return ++answers <= 10 ? int(kMfiFrameHeaderSize)
                               : int(kMfiFrameHeaderSize) + payloadLength;
    };
    EXPECT_TRUE(send({memory(data)}));
    EXPECT_EQ(frames.size(), 11u);

    answers = 0;
    frameAnswer = [&answers](int payloadLength) {
        return ++answers <= 6 ? -1 : int(kMfiFrameHeaderSize) + payloadLength;
    };
    EXPECT_TRUE(send({memory(data)}));
    EXPECT_EQ(frames.size(), 7u);

    frameAnswer = [](int) { return -1; };
    EXPECT_FALSE(send({memory(data)}));
    EXPECT_EQ(frames.size(), 7u);
    frameAnswer = nullptr;
}

// Waits in a library call until SIGUSR1 arrives, then answers -1 as the library does for a
// call it could not finish. SIGUSR1 is unblocked only inside the wait, so a signal sent once
// `entered` is seen always ends it.
std::atomic<bool> entered{false};
int waitForSignal()
{
    sigset_t usr1;
    sigset_t previous;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &usr1, &previous);
    entered = true;
    sigset_t open = previous;
    sigdelset(&open, SIGUSR1);
    const timespec limit{30, 0};
    ::ppoll(nullptr, 0, &limit, &open);
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return -1;
}

// An interrupt makes the library call in progress fail. A memory frame is a failed attempt
// like any other and is sent again after the retry wait; a file record fails the request.
TEST(IosConnFrames, InterruptedFrameIsRetriedAndInterruptedRecordFails)
{
    TransferThread transferThread;
    UsbDataIn queue({new IOSConn(nullptr)});
    queue.setTransferThread(&transferThread);
    std::thread worker([&queue] { queue.process(); });
    queue.setLinkType(OstrTypes::LinkTypeMfi);
    Recorder recorder;
    frames.clear();
    fileCalls = 0;

    bool first = true;
    frameAnswer = [&first](int payloadLength) {
        return std::exchange(first, false) ? waitForSignal()
                                           : int(kMfiFrameHeaderSize) + payloadLength;
    };
    const QByteArray data(100, 'i');
    entered = false;
    queue.send_data(new TestList(1, &recorder, {memory(data)}));
    while (!entered)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    queue.interrupt();
    ASSERT_TRUE(recorder.waitDeleted(1));
    EXPECT_EQ(recorder.outcome(1), Recorder::Succeeded);
    EXPECT_EQ(frames.size(), 2u);
    frameAnswer = nullptr;

    fileAnswer = [] { return waitForSignal(); };
    entered = false;
    queue.send_data(
        new TestList(2, &recorder, {new UsbDBufferPath("/any/file", 0, 10, 0, 0, 0, nullptr)}));
    while (!entered)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    queue.interrupt();
    ASSERT_TRUE(recorder.waitDeleted(2));
    EXPECT_EQ(recorder.outcome(2), Recorder::Failed);
    EXPECT_EQ(fileCalls, 1);
    fileAnswer = nullptr;

    queue.quit();
    worker.join();
}

} // namespace
