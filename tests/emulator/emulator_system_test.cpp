// The emulated FunctionFS where the daemon relies on it behaving as the kernel's. This binary
// runs inside usbd-emu in the daemon's place (see CMakeLists.txt), makes the system calls the
// daemon makes and plays the host with usbd-emuctl. Environment: USBD_EMUCTL, USBD_EMU_NAME.
// With --hold it only brings the function up and waits for an exit status on its standard
// input, for test_emulator.py's checks of what the emulator leaves behind.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <iostream>
#include <thread>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <arvo_hal.h>

#include "ffs_function.h"
#include "functionfs.h"
#include "paths.h"

namespace {

using namespace std::chrono_literals;

constexpr char kCapture[] = "/tmp/ep3.capture";
constexpr char kUdc[] = "/sys/class/udc/emu-udc.0/";
constexpr unsigned long kPhysIoctl = usbd::kPhysTransferIoctl;
constexpr size_t kMiB = 1024 * 1024;

struct Result {
    ssize_t ret;
    int error;
};

Result result(ssize_t ret)
{
    return {ret, ret < 0 ? errno : 0};
}

// A system call on a thread of its own, so that the test can watch it block and interrupt it.
class Call {
public:
    explicit Call(std::function<ssize_t()> call)
        : thread_([this, call] { promise_.set_value(result(call())); })
    {
    }
    ~Call() { thread_.join(); }
    bool pending() { return future_.wait_for(300ms) == std::future_status::timeout; }
    Result get()
    {
        return future_.wait_for(10s) == std::future_status::ready ? future_.get() : Result{-2, 0};
    }
    void interrupt() { pthread_kill(thread_.native_handle(), SIGUSR1); }

private:
    std::promise<Result> promise_;
    std::future<Result> future_ = promise_.get_future();
    std::thread thread_;
};

std::string pattern(size_t size, unsigned seed)
{
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i)
        data[i] = char(i * 13 + seed * 101 + i / 509);
    return data;
}

QJsonObject status()
{
    return QJsonDocument::fromJson(
               QByteArray::fromStdString(usbdtest::emuctlOutput("status --json")))
        .object();
}

// The counters of the function's third endpoint file, ep3, the daemon's bulk IN.
QJsonObject ep3Counters()
{
    return status().value("endpoints").toArray().at(2).toObject();
}

std::vector<std::string> endpointFiles()
{
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator("/dev/usb-ffs/bulk"))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

int eventType(int ep0)
{
    uint8_t record[12];
    return ::read(ep0, record, sizeof record) == 12 ? record[8] : -1;
}

template <class Blob>
Result writeBytes(int fd, const Blob &data)
{
    return result(::write(fd, data.data(), data.size()));
}

// The physical-address request: the record {u32 address, u32 length}, read from the caller.
ssize_t physSend(int fd, uint32_t address, uint32_t length)
{
    uint32_t record[2] = {address, length};
    return ::ioctl(fd, kPhysIoctl, record);
}

class EmulatorSystem : public ::testing::Test {
protected:
    void bringUp()
    {
        std::string why;
        ASSERT_TRUE(usbdtest::bringUpFunction(&function_, &why)) << why;
        ASSERT_TRUE(usbdtest::emuctl(std::string("capture ") + kCapture));
    }
    int ep0() const { return function_.ep0.get(); }
    int ep1() const { return function_.ep1.get(); }
    int ep3() const { return function_.ep3.get(); }

    usbdtest::FfsFunction function_;
};

} // namespace

TEST_F(EmulatorSystem, RefusedAndAcceptedBlobs)
{
    // Every refused blob is in blobs_test.cpp; here a refusal must reach the writer with the
    // kernel's errno and leave the function where it was.
    function_.ep0.reset(::open(usbd::kFfsEp0Path, O_RDWR | O_CLOEXEC));
    ASSERT_TRUE(function_.ep0.valid());
    EXPECT_EQ(endpointFiles(), std::vector<std::string>{"ep0"});
    uint8_t record[12];
    EXPECT_EQ(result(::read(ep0(), record, sizeof record)).error, EBADFD);
    const auto daemon = usbd::functionfs::descriptorsBlob();
    auto longer = daemon, unknownFlag = daemon;
    longer[4] = 184;     // the length field
    unknownFlag[9] |= 1; // flag 0x100
    EXPECT_EQ(writeBytes(ep0(), longer).error, EINVAL);
    EXPECT_EQ(writeBytes(ep0(), unknownFlag).error, ENOSYS);
    EXPECT_EQ(status().value("state").toString(), "waiting-descriptors");

    ASSERT_EQ(writeBytes(ep0(), daemon).ret, 183);
    const auto &strings = usbd::functionfs::stringsBlob();
    EXPECT_EQ(writeBytes(ep0(), std::string(strings.begin(), strings.end()) + '\0').error, EINVAL);
    EXPECT_EQ(status().value("state").toString(), "waiting-strings");
    ASSERT_EQ(writeBytes(ep0(), strings).ret, 33);

    // One file per endpoint, in the order of the descriptors: the daemon opens them so.
    EXPECT_EQ(endpointFiles(), (std::vector<std::string>{"ep0", "ep1", "ep2", "ep3", "ep4"}));
    std::vector<int> addresses;
    for (const QJsonValue &ep : status().value("endpoints").toArray())
        addresses.push_back(ep.toObject().value("address").toInt());
    EXPECT_EQ(addresses, (std::vector<int>{0x01, 0x02, 0x81, 0x82}));

    // Closing every file takes the function down, as in the kernel.
    function_.ep0.reset();
    EXPECT_EQ(status().value("state").toString(), "waiting-descriptors");
}

TEST_F(EmulatorSystem, EventsAndControllerFiles)
{
    ASSERT_NO_FATAL_FAILURE(bringUp());
    usbd::UniqueFd epoll(::epoll_create1(EPOLL_CLOEXEC));
    epoll_event registration{};
    registration.events = EPOLLIN;
    ASSERT_EQ(::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, ep0(), &registration), 0);
    {
        Call waiter([&] {
            epoll_event event;
            return ::epoll_wait(epoll.get(), &event, 1, 10000);
        });
        EXPECT_TRUE(waiter.pending()) << "epoll woke without an event";
        ASSERT_TRUE(usbdtest::emuctl("plug --speed high-speed --maxpower 500"));
        EXPECT_EQ(waiter.get().ret, 1);
    }
    // The files hold the new values before the device can see ENABLE.
    EXPECT_EQ(usbdtest::readFile(std::string(kUdc) + "state"), "configured\n");
    EXPECT_EQ(usbdtest::readFile(std::string(kUdc) + "current_speed"), "high-speed\n");
    EXPECT_EQ(usbdtest::readFile(usbd::kMaxPowerPath), "500\n");
    EXPECT_EQ(eventType(ep0()), 0); // BIND
    EXPECT_EQ(eventType(ep0()), 2); // ENABLE

    {
        Call reader([&] { return ssize_t(eventType(ep0())); });
        EXPECT_TRUE(reader.pending());
        ASSERT_TRUE(usbdtest::emuctl("unplug"));
        EXPECT_EQ(reader.get().ret, 3); // DISABLE
    }
    EXPECT_EQ(usbdtest::readFile(std::string(kUdc) + "state"), "not attached\n");
    EXPECT_EQ(usbdtest::readFile(std::string(kUdc) + "current_speed"), "UNKNOWN\n");
    uint8_t small[11];
    EXPECT_EQ(result(::read(ep0(), small, sizeof small)).error, EINVAL);
}

TEST_F(EmulatorSystem, EndpointsFollowTheHostAndCaptureExactly)
{
    ASSERT_NO_FATAL_FAILURE(bringUp());
    std::string expected;
    {
        const std::string first = pattern(5000, 1);
        Call waiting([&] { return ::write(ep3(), first.data(), first.size()); });
        EXPECT_TRUE(waiting.pending()) << "IN write went through before the host enabled it";
        ASSERT_TRUE(usbdtest::emuctl("plug"));
        EXPECT_EQ(waiting.get().ret, 5000);
        expected = first;
    }
    const std::string second = pattern(5000, 2);
    ASSERT_TRUE(usbdtest::emuctl("short 1000"));
    EXPECT_EQ(writeBytes(ep3(), second).ret, 1000);
    // A limit past the first 1 MiB request: the call ends inside its second request.
    const std::string third = pattern(4 * kMiB, 3);
    ASSERT_TRUE(usbdtest::emuctl("short " + std::to_string(1536 * 1024)));
    EXPECT_EQ(writeBytes(ep3(), third).ret, 1536 * 1024);
    // Uneven buffers, which the kernel splits into chunks across their boundaries.
    std::string pieces[] = {pattern(3 * kMiB + 7, 4), pattern(5 * kMiB + 4093, 5),
                            pattern(123457, 6)};
    iovec iov[3];
    for (int i = 0; i < 3; ++i)
        iov[i] = {pieces[i].data(), pieces[i].size()};
    expected +=
        second.substr(0, 1000) + third.substr(0, 1536 * 1024) + pieces[0] + pieces[1] + pieces[2];
    EXPECT_EQ(::writev(ep3(), iov, 3),
              ssize_t(pieces[0].size() + pieces[1].size() + pieces[2].size()));

    ASSERT_TRUE(usbdtest::emuctl("stall"));
    const std::string last = pattern(100, 7);
    {
        Call held([&] { return ::write(ep3(), last.data(), last.size()); });
        EXPECT_TRUE(held.pending());
        EXPECT_EQ(ep3Counters().value("waiting").toInt(), 1);
        ASSERT_TRUE(usbdtest::emuctl("release"));
        EXPECT_EQ(held.get().ret, 100);
        expected += last;
    }

    // Transfers in flight when the host goes fail with ESHUTDOWN, in both directions.
    ASSERT_TRUE(usbdtest::emuctl("stall"));
    {
        uint8_t in[10];
        Call held([&] { return ::write(ep3(), last.data(), last.size()); });
        Call reading([&] { return ::read(ep1(), in, sizeof in); });
        EXPECT_TRUE(held.pending() && reading.pending());
        ASSERT_TRUE(usbdtest::emuctl("unplug"));
        EXPECT_EQ(held.get().error, ESHUTDOWN);
        EXPECT_EQ(reading.get().error, ESHUTDOWN);
    }

    EXPECT_TRUE(usbdtest::readFile(kCapture) == expected);
    // The failed write delivered nothing and does not count.
    EXPECT_EQ(ep3Counters().value("bytes").toInt(), int(expected.size()));
    EXPECT_EQ(ep3Counters().value("writes").toInt(), 5);
    EXPECT_EQ(result(physSend(ep1(), 0, 0)).error, ENOTTY);
    EXPECT_EQ(result(::ioctl(ep3(), 0x1234, nullptr)).error, ENOTTY);
}

TEST_F(EmulatorSystem, PhysicalAddressTransfers)
{
    ASSERT_NO_FATAL_FAILURE(bringUp());
    constexpr uint32_t kSize = 3 * kMiB;
    arvo_hal_handle_t ion = 0;
    arvo_hal_mem_t memory = 0;
    uint8_t *base = nullptr;
    uint32_t phys = 0;
    ASSERT_EQ(arvo_hal_initialize(nullptr), ARVO_HAL_OK);
    ASSERT_EQ(arvo_hal_device_open(usbd::kIonDevicePath, nullptr, &ion), ARVO_HAL_OK);
    ASSERT_EQ(arvo_hal_mem_alloc(ion, &memory, kSize, 4096, 0, 0), ARVO_HAL_OK);
    ASSERT_EQ(arvo_hal_mem_map(memory, &base), ARVO_HAL_OK);
    ASSERT_EQ(arvo_hal_mem_get_phys_addr(memory, &phys), ARVO_HAL_OK);
    const std::string data = pattern(kSize, 8);
    std::memcpy(base, data.data(), kSize);

    {
        // Before the host enables the function the request waits, as a write does.
        Call first([&] { return physSend(ep3(), phys + 100, 2 * kMiB); });
        EXPECT_TRUE(first.pending());
        ASSERT_TRUE(usbdtest::emuctl("plug"));
        EXPECT_EQ(first.get().ret, ssize_t(2 * kMiB));
    }
    ASSERT_TRUE(usbdtest::emuctl("short 1000"));
    EXPECT_EQ(physSend(ep3(), phys, 5000), 1000);
    EXPECT_EQ(physSend(ep3(), phys + kSize - 10, 10), 10);
    ASSERT_TRUE(usbdtest::emuctl("stall"));
    {
        Call held([&] { return physSend(ep3(), phys, 10); });
        EXPECT_TRUE(held.pending());
        held.interrupt();
        EXPECT_EQ(held.get().error, EINTR);
    }
    ASSERT_TRUE(usbdtest::emuctl("release"));

    // Memory the caller does not hold, or a range past its end: EFAULT, nothing sent.
    EXPECT_EQ(result(physSend(ep3(), phys + kSize, 1)).error, EFAULT);
    EXPECT_EQ(result(physSend(ep3(), phys - 4096, 16)).error, EFAULT);
    EXPECT_EQ(result(physSend(ep3(), phys + kSize - 10, 11)).error, EFAULT);

    const std::string expected =
        data.substr(100, 2 * kMiB) + data.substr(0, 1000) + data.substr(kSize - 10);
    EXPECT_TRUE(usbdtest::readFile(kCapture) == expected);
    const QJsonObject counters = ep3Counters();
    EXPECT_EQ(counters.value("ioctls").toInt(), 3);
    EXPECT_EQ(counters.value("ioctl_bytes").toInt(), int(expected.size()));
    EXPECT_EQ(counters.value("writes").toInt(), 0);
    EXPECT_EQ(counters.value("bytes").toInt(), int(expected.size()));
    arvo_hal_mem_free(memory);
}

int main(int argc, char **argv)
{
    // As in the daemon's transfer thread: a do-nothing SIGUSR1 handler without SA_RESTART, so
    // that a blocked call returns EINTR.
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    if (argc == 2 && std::string(argv[1]) == "--hold") {
        usbdtest::FfsFunction function;
        std::string why;
        if (!usbdtest::bringUpFunction(&function, &why)) {
            std::cerr << why << "\n";
            return 125;
        }
        std::cout << "ready" << std::endl;
        int status = 0;
        std::cin >> status;
        _exit(status);
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
