// The host library against scripted devices (fake_libusb): bytes arrive whole and in order
// whatever the packets and transfers, every way a stream ends keeps what already arrived, and
// finding the device says clearly why it failed.
#include <gtest/gtest.h>

#include <atomic>
#include <numeric>

#include "fake_libusb.h"
#include <usbd/host.h>

namespace {

using usbd::host::FindOptions;
using usbd::host::Link;
using usbd::host::Status;
using usbd::host::StreamOptions;
using usbd::host::StreamResult;

std::vector<uint8_t> pattern(size_t size, uint8_t seed)
{
    std::vector<uint8_t> data(size);
    for (size_t i = 0; i < size; ++i)
        data[i] = uint8_t(i * 7 + seed + i / 509);
    return data;
}

class LinkTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        link_.reset();
        fakeusb::reset();
        EXPECT_EQ(fakeusb::openContexts(), 0);
    }

    std::shared_ptr<libusb_device> plug(uint8_t address = 5)
    {
        auto device = std::make_shared<libusb_device>();
        device->address = address;
        fakeusb::bus().push_back(device);
        plugged_.push_back(device);
        return device;
    }

    Link &open(FindOptions options = {})
    {
        std::string error;
        EXPECT_EQ(Link::open(options, &link_, &error), Status::Ok) << error;
        return *link_;
    }

    StreamResult receive(StreamOptions options, std::vector<uint8_t> *into)
    {
        return link_->receive(options, [into](const uint8_t *data, size_t size) {
            into->insert(into->end(), data, data + size);
            return true;
        });
    }

    std::vector<std::shared_ptr<libusb_device>> plugged_; // outlive the link, also once unplugged
    std::unique_ptr<Link> link_;
};

TEST_F(LinkTest, ReceivesEveryWriteWholeAndInOrder)
{
    auto device = plug();
    // Short writes, a write of whole packets spanning several transfers, and a tail; then a
    // write past the limit that must stay with the device but for the packet the limit ends in.
    std::vector<uint8_t> expected;
    for (const auto &block : {pattern(1000, 1), pattern(3 * 1024 * 1024, 2), pattern(17, 3), pattern(100, 4)}) {
        device->write(block);
        expected.insert(expected.end(), block.begin(), block.end());
    }
    device->write(pattern(4096, 5));

    open();
    EXPECT_TRUE(device->claimed);
    StreamOptions options;
    options.limit = expected.size() - 40;
    std::vector<uint8_t> got;
    const StreamResult result = receive(options, &got);
    EXPECT_EQ(result.status, Status::Ok) << result.message;
    EXPECT_EQ(result.bytes, options.limit);
    EXPECT_EQ(result.discarded, 40u);
    expected.resize(options.limit);
    EXPECT_TRUE(got == expected);
    EXPECT_EQ(device->packets.size(), 8u); // the next write, untouched
    EXPECT_EQ(device->largestSubmit, 1024u * 1024u);

    link_.reset();
    EXPECT_FALSE(device->claimed);
}

TEST_F(LinkTest, EndsKeepWhatArrived)
{
    auto device = plug();
    open();

    // Idle: whole packets with no short one leave a transfer half full; the time-out takes it
    // back with its bytes.
    device->write(pattern(8192, 1));
    StreamOptions options;
    options.idleTimeoutMs = 50;
    std::vector<uint8_t> got;
    StreamResult result = receive(options, &got);
    EXPECT_EQ(result.status, Status::Timeout);
    EXPECT_EQ(result.bytes, 8192u);
    EXPECT_TRUE(got == pattern(8192, 1));

    // The caller's stop flag, raised once data flows.
    std::atomic<bool> stop{false};
    device->write(pattern(3000, 2));
    options.stop = &stop;
    options.idleTimeoutMs = 0;
    options.progress = [&](uint64_t bytes, double) {
        if (bytes > 0)
            stop = true;
    };
    got.clear();
    result = receive(options, &got);
    EXPECT_EQ(result.status, Status::Interrupted);
    EXPECT_TRUE(got == pattern(3000, 2));

    // The sink refusing (a full disk) stops at once.
    device->write(pattern(3000, 3));
    options = StreamOptions{};
    result = link_->receive(options, [](const uint8_t *, size_t) { return false; });
    EXPECT_EQ(result.status, Status::Stopped);

    // The device leaving in the middle: everything before it, and the reason.
    device->write(pattern(5 * 1024 * 1024, 4));
    device->goneAfter = device->delivered + 2 * 1024 * 1024 + 512;
    got.clear();
    result = receive(StreamOptions{}, &got);
    EXPECT_EQ(result.status, Status::Gone);
    EXPECT_EQ(result.bytes, 2u * 1024 * 1024 + 512);
    EXPECT_TRUE(std::equal(got.begin(), got.end(), pattern(5 * 1024 * 1024, 4).begin()));
}

TEST_F(LinkTest, SmallerTransfersWhenTheKernelLacksMemory)
{
    auto device = plug();
    device->submitLimit = 256 * 1024;
    const auto data = pattern(3 * 1024 * 1024 + 5, 9);
    device->write(data);
    open();
    StreamOptions options;
    options.limit = data.size();
    std::vector<uint8_t> got;
    const StreamResult result = receive(options, &got);
    EXPECT_EQ(result.status, Status::Ok) << result.message;
    EXPECT_TRUE(got == data);
    EXPECT_EQ(device->largestSubmit, 256u * 1024);
}

TEST_F(LinkTest, SendsWhatTheDeviceTakesAndSaysWhenItStops)
{
    auto device = plug();
    const auto data = pattern(3 * 1024 * 1024 + 5, 6);
    device->outCapacity = data.size();
    open();

    // The source hands out odd-sized pieces; transfers go out whole but for the last.
    size_t offset = 0;
    auto source = [&](uint8_t *buffer, size_t room) -> long {
        const size_t count = std::min({room, data.size() - offset, size_t(100000)});
        std::copy_n(data.begin() + long(offset), count, buffer);
        offset += count;
        return long(count);
    };
    uint64_t confirmed = 0;
    auto sent = [&](const uint8_t *, size_t size) { confirmed += size; };
    StreamResult result = link_->send(StreamOptions{}, source, sent);
    EXPECT_EQ(result.status, Status::Ok) << result.message;
    EXPECT_EQ(result.bytes, data.size());
    EXPECT_EQ(confirmed, data.size());
    EXPECT_TRUE(device->outData == data);

    // A device whose receive asked for less: the rest times out, and what it took is counted.
    device->outData.clear();
    device->outCapacity = 1024 * 1024 + 100;
    offset = 0;
    confirmed = 0;
    StreamOptions options;
    options.idleTimeoutMs = 50;
    result = link_->send(options, source, sent);
    EXPECT_EQ(result.status, Status::Timeout);
    EXPECT_EQ(result.bytes, 1024u * 1024 + 100);
    EXPECT_EQ(confirmed, result.bytes);

    // A source that fails.
    result = link_->send(StreamOptions{}, [](uint8_t *, size_t) -> long { return -1; }, nullptr);
    EXPECT_EQ(result.status, Status::Stopped);
}

TEST_F(LinkTest, FindingSaysWhyNot)
{
    std::string error;
    std::vector<usbd::host::DeviceInfo> devices;
    EXPECT_EQ(usbd::host::listDevices({}, &devices, &error), Status::NotFound);
    EXPECT_NE(error.find("ff/00/00"), std::string::npos) << error;

    auto storage = plug(3);
    storage->function = false;
    auto first = plug(5);
    auto second = plug(9);
    second->openError = LIBUSB_ERROR_ACCESS;

    // Listing shows both functions, the refused one without strings but with the rule to install.
    ASSERT_EQ(usbd::host::listDevices({}, &devices, &error), Status::Ok);
    ASSERT_EQ(devices.size(), 2u);
    EXPECT_EQ(devices[0].product, "Media Device");
    EXPECT_EQ(devices[0].interfaceName, "CTRL Interface");
    EXPECT_EQ(devices[0].function.in.address, 0x81);
    EXPECT_EQ(devices[0].function.out.address, 0x02);
    EXPECT_EQ(devices[0].maxPowerMilliamps, 500u);
    EXPECT_TRUE(devices[1].product.empty());
    EXPECT_NE(devices[1].stringsError.find("70-usbd-host.rules"), std::string::npos);

    std::unique_ptr<Link> link;
    EXPECT_EQ(Link::open({}, &link, &error), Status::Ambiguous);
    EXPECT_NE(error.find("001:005 001:009"), std::string::npos) << error;
    EXPECT_EQ(Link::open({usbd::host::BusAddress{1, 9}}, &link, &error), Status::AccessDenied);
    EXPECT_NE(error.find("/dev/bus/usb/001/009"), std::string::npos) << error;
    EXPECT_EQ(Link::open({usbd::host::BusAddress{1, 3}}, &link, &error), Status::NotFound);
    EXPECT_NE(error.find("does not carry"), std::string::npos) << error;
    EXPECT_EQ(Link::open({usbd::host::BusAddress{1, 4}}, &link, &error), Status::NotFound);
    EXPECT_NE(error.find("no device at 001:004"), std::string::npos) << error;
    first->claimError = LIBUSB_ERROR_BUSY;
    EXPECT_EQ(Link::open({usbd::host::BusAddress{1, 5}}, &link, &error), Status::Busy);
    EXPECT_NE(error.find("in use by another program"), std::string::npos) << error;
    EXPECT_FALSE(link);
}

TEST_F(LinkTest, WaitsForTheFunctionToAppear)
{
    // Each poll must look at the bus afresh: the device shows up on the third look only.
    auto device = plug();
    device->scansUntilPresent = 2;
    FindOptions options;
    options.wait = true;
    open(options);
    EXPECT_EQ(fakeusb::scans(), 3);
    EXPECT_TRUE(device->claimed);

    // Given up on by the caller.
    link_.reset();
    fakeusb::reset();
    std::atomic<bool> stop{true};
    options.stop = &stop;
    std::string error;
    EXPECT_EQ(Link::open(options, &link_, &error), Status::Interrupted);
}

} // namespace
