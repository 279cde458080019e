// The MFi transport against a stand-in for the MFi link library that answers as told: a link
// that stays busy, padding of every size, and a call that waits until a signal ends it. The
// library's functions are defined here; this binary does not link the project's stand-in.

#include <gtest/gtest.h>

#include <poll.h>
#include <signal.h>

#include <atomic>
#include <functional>
#include <future>
#include <mutex>
#include <set>
#include <thread>

#include <libiosconn.h>

#include "datapath_fakes.h"
#include "iosconn.h"
#include "usbdatain.h"

namespace {

std::mutex libraryMutex;
std::vector<std::pair<quint32, int>> frames; // header offset and payload length of every call
std::set<const void *> paddingPayloads;      // payload addresses of the calls past the data
// Answers a frame call; by default it takes the whole frame.
std::function<int(int payloadLength)> frameAnswer;

} // namespace

extern "C" {
int iosconn_init(void) { return 0; }
int iosconn_start(int) { return 0; }
int iosconn_isconnect(int) { return IOSCONN_MFI; }
int iosconn_send_file(int, const void *, int) { return 1; }
int iosconn_send_shm(int, const void *, int) { return 1; }
int iosconn_send_with_header(int, const void *header, int headerLength, const void *payload,
                             int payloadLength, int)
{
    MfiFrameHeader copy;
    memcpy(&copy, header, sizeof copy);
    {
        std::lock_guard<std::mutex> guard(libraryMutex);
        frames.emplace_back(quint32(copy.offset), payloadLength);
        if (quint32(copy.offset) >= 1000)
            paddingPayloads.insert(payload);
    }
    if (payloadLength < 0)
        return -1; // as a library that checks its arguments
    return frameAnswer ? frameAnswer(payloadLength) : headerLength + payloadLength;
}
}

namespace {

bool send(const QList<UsbDBuffer *> &buffers)
{
    frames.clear();
    paddingPayloads.clear();
    Recorder recorder;
    TestList request(1, &recorder, buffers);
    return IOSConn(nullptr).transfer(&request);
}

// Padding costs no memory of its own size, and is sent whole: in frames like data, each of them
// from the same zero block, or the request fails.
TEST(IosConnFrames, PaddingOfEverySizeIsSentExactlyOrFails)
{
    const QByteArray data(1000, 'd');
    constexpr quint32 kPadding = 0x80000000u; // negative as an int
    ASSERT_TRUE(send({new UsbDBufferMem(data, 0, 1000, 0, kPadding, 0, nullptr)}));
    quint64 sent = 0;
    for (const auto &frame : frames) {
        ASSERT_GE(frame.second, 0);
        ASSERT_LE(quint32(frame.second), kMfiMaxFramePayload);
        sent += quint64(frame.second);
    }
    EXPECT_EQ(sent, 1000u + kPadding);
    EXPECT_EQ(frames.back().first + quint64(frames.back().second), 1000u + kPadding);
    EXPECT_EQ(paddingPayloads.size(), 1u);

    // A padding frame that is never taken fails the request instead of being forgotten.
    frameAnswer = [](int) { return -1; };
    EXPECT_FALSE(send({new UsbDBufferMem(data, 0, 0, 0, 16, 0, nullptr)}));
    frameAnswer = nullptr;
}

// A library that keeps answering "nothing taken" (just the header's 32 bytes) is a busy link:
// retried under the retry rule, then the request fails instead of spinning for ever.
TEST(IosConnFrames, ALinkThatStaysBusyEndsTheRequest)
{
    std::atomic<bool> giveUp{false};
    frameAnswer = [&giveUp](int payloadLength) {
        return giveUp ? int(kMfiFrameHeaderSize) + payloadLength : int(kMfiFrameHeaderSize);
    };
    const QByteArray data(100, 'b');
    auto outcome = std::async(std::launch::async, [&data] {
        return send({new UsbDBufferMem(data, 0, 100, 0, 0, 0, nullptr)});
    });
    const bool ended = outcome.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    giveUp = true; // lets a spinning transfer end, so that the test can report it
    EXPECT_TRUE(ended);
    EXPECT_FALSE(outcome.get() && ended);
    EXPECT_EQ(frames.size(), size_t(kMfiMaxRetries + 1));
    frameAnswer = nullptr;
}

// An interrupt ends the transfer in progress on the MFi link too, within 100 ms: the call is
// not retried after it, and the retry waits do not hold the interrupt up.
TEST(IosConnFrames, InterruptEndsTheTransferWithin100ms)
{
    UsbDataIn queue({new IOSConn(nullptr)});
    std::thread worker([&queue] { queue.process(); });
    queue.setLinkType(OstrTypes::LinkTypeMfi);
    std::atomic<int> calls{0};
    frameAnswer = [&calls](int) {
        ++calls;
        const timespec limit{1, 0};
        ::ppoll(nullptr, 0, &limit, nullptr);
        return -1; // interrupted or not: the link failed this frame
    };
    Recorder recorder;
    const QByteArray data(100, 'i');
    queue.send_data(new TestList(1, &recorder, {new UsbDBufferMem(data, 0, 100, 0, 0, 0, nullptr)}));
    while (calls == 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const auto start = std::chrono::steady_clock::now();
    queue.interrupt();
    ASSERT_TRUE(recorder.waitDeleted(1));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
    EXPECT_EQ(recorder.outcome(1), Recorder::Failed);
    EXPECT_EQ(calls, 1);
    queue.quit();
    worker.join();
    frameAnswer = nullptr;
}

} // namespace
