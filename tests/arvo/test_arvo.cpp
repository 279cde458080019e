// The HAL session layer, shared memory and the handle buffer over the stand-in HAL. Runs inside
// the device emulator, where /dev/ion exists.
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include <QByteArray>
#include <QCoreApplication>
#include <QStringList>

#include <arvo_hal_sim.h>
#include <gtest/gtest.h>

#include "arvo.h"
#include "arvomemshare.h"
#include "usbdbuffer.h"

namespace {

// Collects what the code under test logs, to check the texts its users rely on.
QStringList &logged()
{
    static QStringList lines;
    return lines;
}

void collect(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    if (type == QtFatalMsg)
        abort();
    logged().append(message);
}

bool loggedLine(const QString &text)
{
    for (const QString &line : logged())
        if (line.contains(text))
            return true;
    return false;
}

class ArvoTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        logged().clear();
        qInstallMessageHandler(collect);
    }
    void TearDown() override { qInstallMessageHandler(nullptr); }
};

// Runs in a fresh process, so that nothing has initialised the HAL yet.
[[noreturn]] void racingOpensInFreshProcess()
{
    if (arvo::deviceClose(1)) // before any initialisation: refused, no HAL call
        _exit(2);
    if (arvo_sim_initialize_count() != 0)
        _exit(3);
    ArvoDevicePtr first;
    ArvoDevicePtr second;
    std::thread a([&] { first = arvo::deviceOpen(arvo::kIonDevicePath, nullptr); });
    std::thread b([&] { second = arvo::deviceOpen(arvo::kIonDevicePath, nullptr); });
    a.join();
    b.join();
    // One of the two opens is answered "already open" (-1004); both devices are usable.
    if (!first || !second || first->handle() == 0 || second->handle() == 0)
        _exit(4);
    _exit(arvo_sim_initialize_count() == 1 ? 0 : 5);
}

TEST_F(ArvoTest, SessionInitialisesOnceUnderRacingOpens)
{
    EXPECT_EXIT(racingOpensInFreshProcess(), ::testing::ExitedWithCode(0), "");
}

TEST_F(ArvoTest, DeviceControl)
{
    EXPECT_FALSE(arvo::deviceOpen("/dev/no-such-node", nullptr));
    EXPECT_TRUE(loggedLine("arvo_hal_device_open:"));

    ArvoDevice none(0);
    EXPECT_FALSE(none.start(nullptr));
    EXPECT_FALSE(none.stop(nullptr));

    ArvoDevicePtr ion = arvo::deviceOpen(arvo::kIonDevicePath, nullptr);
    ASSERT_TRUE(ion);
    logged().clear();
    EXPECT_TRUE(ion->stop(nullptr)); // not running: only a warning
    EXPECT_TRUE(loggedLine("Device was not running"));
    EXPECT_TRUE(ion->start(nullptr));
    EXPECT_TRUE(ion->start(nullptr)); // already running
    EXPECT_TRUE(ion->stop(nullptr));
    const int opens = arvo_sim_device_open_count(arvo::kIonDevicePath);
    ion.reset();
    EXPECT_EQ(arvo_sim_device_open_count(arvo::kIonDevicePath), opens - 1);
}

[[noreturn]] void racingIonInFreshProcess()
{
    ArvoDevicePtr a;
    ArvoDevicePtr b;
    std::thread t1([&] { a = ArvoMemShare::ion(); });
    std::thread t2([&] { b = ArvoMemShare::ion(); });
    t1.join();
    t2.join();
    _exit(a && a == b && arvo_sim_device_open_count(arvo::kIonDevicePath) == 1 ? 0 : 1);
}

TEST_F(ArvoTest, IonOpensOnceAcrossThreads)
{
    EXPECT_EXIT(racingIonInFreshProcess(), ::testing::ExitedWithCode(0), "");
}

TEST_F(ArvoTest, InProcessRange)
{
    ArvoMemShare heap(4096, true, nullptr);
    EXPECT_EQ(heap.phys(), 0u);
    EXPECT_EQ(heap.shareHandle(), 0u);
    heap.setDataSize(100);
    EXPECT_EQ(heap.dataSize(), 100u);
    heap.setDataSize(4096);
    EXPECT_EQ(heap.dataSize(), 4096u);
    heap.setDataSize(5000);
    EXPECT_EQ(heap.dataSize(), 4096u);
    EXPECT_TRUE(loggedLine("Size bigger then memory chunk: 4096 5000"));

    heap.setDataSize(1000);
    heap.setOffset(100); // the range keeps its end
    EXPECT_EQ(heap.offset(), 100u);
    EXPECT_EQ(heap.dataSize(), 900u);
    heap.setOffset(50); // moving back is refused, the offset still moves
    EXPECT_TRUE(loggedLine("Offset larger than size: 50 900"));
    EXPECT_EQ(heap.offset(), 50u);
    EXPECT_EQ(heap.dataSize(), 900u);
}

TEST_F(ArvoTest, AllocationShareAndImportAcrossProcesses)
{
    arvo_hal_mem_t none = 1;
    EXPECT_FALSE(ArvoMemShare::ionAllocate(&none, 0));
    EXPECT_EQ(none, 0u);

    ArvoMemShare owner(1000, false, nullptr);
    EXPECT_EQ(owner.allocatedSize(), 1024u); // asked for in multiples of 128
    ASSERT_NE(owner.data(), nullptr);
    for (int i = 0; i < 1000; ++i)
        owner.data()[i] = uchar(i * 7);
    const quint64 handle = owner.shareHandle();
    ASSERT_NE(handle, 0u);
    EXPECT_NE(owner.phys(), 0u);

    // Another process imports the handle, sees the bytes and writes back.
    const pid_t child = fork();
    if (child == 0) {
        ArvoMemShare imported(handle, 0, 0, nullptr);
        if (imported.dataSize() != imported.allocatedSize() || imported.allocatedSize() != 1024)
            _exit(1);
        uchar *bytes = imported.data(); // maps on first use
        if (!bytes)
            _exit(2);
        for (int i = 0; i < 1000; ++i)
            if (bytes[i] != uchar(i * 7))
                _exit(3);
        bytes[0] = 0xAB;
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(owner.data()[0], 0xAB);

    // An import that fails leaves an object without memory, never a crash.
    ArvoMemShare bogus(0xDEAD00001000ull, 0, 0, nullptr);
    EXPECT_TRUE(loggedLine("arvo_hal_mem_import:"));
    EXPECT_EQ(bogus.data(), nullptr);
    EXPECT_EQ(bogus.phys(), 0u);
}

TEST_F(ArvoTest, ReallocShrinksOnlyWhenWorthIt)
{
    constexpr quint32 kFourMiB = 4 * 1024 * 1024;
    ArvoMemShare big(kFourMiB, false, nullptr);
    ASSERT_NE(big.data(), nullptr);
    memset(big.data(), 0x5A, kFourMiB);
    big.data()[kFourMiB - 1] = 0x11;

    big.setDataSize(kFourMiB / 10 * 9); // 3.6 MiB: frees less than 512 KiB
    const quint64 before = big.shareHandle();
    big.realloc();
    EXPECT_EQ(big.shareHandle(), before);
    EXPECT_FALSE(loggedLine("Realloc:"));

    big.setDataSize(kFourMiB);
    big.setOffset(kFourMiB - 1024 * 1024); // the last MiB
    big.realloc();
    EXPECT_TRUE(loggedLine("Realloc: 1048576 -> 1048576"));
    EXPECT_EQ(big.allocatedSize(), 1024u * 1024u);
    EXPECT_EQ(big.offset(), 0u);
    ASSERT_NE(big.data(), nullptr);
    EXPECT_EQ(big.data()[0], 0x5A);
    EXPECT_EQ(big.data()[1024 * 1024 - 1], 0x11);
}

TEST_F(ArvoTest, HandleBufferImportsOnlyOnMap)
{
    ArvoMemShare owner(8192, false, nullptr);
    ASSERT_NE(owner.data(), nullptr);
    memset(owner.data(), 0x42, 8192);
    const int held = arvo_sim_memory_count();

    {
        UsbDBufferArvoHandle buffer(owner.shareHandle(), 100, 8000, 4, 8, true, 9, nullptr);
        EXPECT_EQ(buffer.handle(), owner.shareHandle());
        EXPECT_EQ(arvo_sim_memory_count(), held); // nothing imported before map()
        ASSERT_TRUE(buffer.map());
        ASSERT_TRUE(buffer.map()); // a second map replaces the first import
        EXPECT_EQ(arvo_sim_memory_count(), held + 1);
        ASSERT_NE(buffer.virtualAddress(), nullptr);
        EXPECT_EQ(buffer.virtualAddress()[100], 0x42);
        EXPECT_EQ(buffer.physicalAddress(), owner.phys()); // byte 0, whatever the offset
    }
    EXPECT_EQ(arvo_sim_memory_count(), held);

    UsbDBufferArvoHandle pastTheEnd(owner.shareHandle(), 8000, 193, 0, 0, true, 0, nullptr);
    EXPECT_FALSE(pastTheEnd.map());
    UsbDBufferArvoHandle unknown(0x12345ull << 32 | 0x1000, 0, 1, 0, 0, true, 0, nullptr);
    EXPECT_FALSE(unknown.map());
    EXPECT_EQ(unknown.virtualAddress(), nullptr);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
    return RUN_ALL_TESTS();
}
