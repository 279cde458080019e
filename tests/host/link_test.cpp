// The host library, through its C interface, against scripted devices (fake_libusb): bytes
// arrive whole and in order whatever the packets and transfers, every way a stream ends keeps
// what already arrived, finding the device says clearly why it failed, and a session follows
// the device through a reset.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "fake_libusb.h"
#include <usbd/host.h>

namespace {

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
        usbd_host_free(host_);
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

    usbd_host_status open() { return usbd_host_open(host_); }

    std::string error() const { return usbd_host_error(host_); }

    usbd_host_status receive(uint64_t limit, std::vector<uint8_t> *into)
    {
        return usbd_host_receive(
            host_, limit,
            [](const uint8_t *data, size_t size, void *user) {
                auto *bytes = static_cast<std::vector<uint8_t> *>(user);
                bytes->insert(bytes->end(), data, data + size);
                return 1;
            },
            into);
    }

    std::vector<std::shared_ptr<libusb_device>>
        plugged_; // outlive the session, also once unplugged
    usbd_host *host_ = usbd_host_new();
};

TEST_F(LinkTest, ReceivesEveryWriteWholeAndInOrder)
{
    auto device = plug();
    // Short writes, a write of whole packets spanning several transfers, and a tail; then a
    // write past the limit that must stay with the device but for the packet the limit ends in.
    std::vector<uint8_t> expected;
    for (const auto &block :
         {pattern(1000, 1), pattern(3 * 1024 * 1024, 2), pattern(17, 3), pattern(100, 4)}) {
        device->write(block);
        expected.insert(expected.end(), block.begin(), block.end());
    }
    device->write(pattern(4096, 5));

    ASSERT_EQ(open(), USBD_HOST_OK) << error();
    EXPECT_TRUE(device->claimed);
    const uint64_t limit = expected.size() - 40;
    std::vector<uint8_t> got;
    EXPECT_EQ(receive(limit, &got), USBD_HOST_OK) << error();
    EXPECT_EQ(usbd_host_stream_bytes(host_), limit);
    EXPECT_EQ(usbd_host_stream_discarded(host_), 40u);
    expected.resize(limit);
    EXPECT_TRUE(got == expected);
    EXPECT_EQ(device->packets.size(), 8u); // the next write, untouched
    EXPECT_EQ(device->largestSubmit, 1024u * 1024u);

    usbd_host_close(host_);
    EXPECT_FALSE(device->claimed);
    EXPECT_EQ(usbd_host_opened(host_), nullptr);
}

TEST_F(LinkTest, EndsKeepWhatArrived)
{
    auto device = plug();
    ASSERT_EQ(open(), USBD_HOST_OK) << error();

    // Idle: whole packets with no short one leave a transfer half full; the time-out takes it
    // back with its bytes.
    device->write(pattern(8192, 1));
    usbd_host_set_idle_timeout(host_, 50);
    std::vector<uint8_t> got;
    EXPECT_EQ(receive(0, &got), USBD_HOST_TIMEOUT);
    EXPECT_EQ(usbd_host_stream_bytes(host_), 8192u);
    EXPECT_TRUE(got == pattern(8192, 1));

    // Interrupted once data flows, as a signal handler would: the call in progress ends, and
    // the interruption is used up by it.
    device->write(pattern(3000, 2));
    usbd_host_set_idle_timeout(host_, 0);
    usbd_host_set_progress(
        host_,
        [](uint64_t bytes, double, void *user) {
            if (bytes > 0)
                usbd_host_interrupt(static_cast<usbd_host *>(user));
        },
        host_);
    got.clear();
    EXPECT_EQ(receive(0, &got), USBD_HOST_INTERRUPTED);
    EXPECT_TRUE(got == pattern(3000, 2));
    usbd_host_set_progress(host_, nullptr, nullptr);

    // The sink refusing (a full disk) stops at once.
    device->write(pattern(3000, 3));
    usbd_host_set_idle_timeout(host_, 10000);
    EXPECT_EQ(usbd_host_receive(
                  host_, 0, [](const uint8_t *, size_t, void *) { return 0; }, nullptr),
              USBD_HOST_STOPPED);

    // The device leaving in the middle: everything before it, and the reason.
    device->write(pattern(5 * 1024 * 1024, 4));
    device->goneAfter = device->delivered + 2 * 1024 * 1024 + 512;
    got.clear();
    EXPECT_EQ(receive(0, &got), USBD_HOST_GONE);
    EXPECT_EQ(usbd_host_stream_bytes(host_), 2u * 1024 * 1024 + 512);
    EXPECT_TRUE(std::equal(got.begin(), got.end(), pattern(5 * 1024 * 1024, 4).begin()));
}

// A real device's transfers come back from usbfs one by one: a full one can be handed back after
// the device has left and the library has already seen the next transfer fail to submit. The
// bytes it holds arrived before the device left, in order, and a stream that drops them loses
// the end of the last write the device made.
TEST_F(LinkTest, KeepsWhatArrivedWhenItComesBackAfterTheDeviceLeft)
{
    auto device = plug();
    ASSERT_EQ(open(), USBD_HOST_OK) << error();
    // Two writes that end in short packets fill a transfer each; the device leaves after them.
    device->write(pattern(3000, 1));
    device->write(pattern(5000, 2));
    device->goneAfter = 8000;
    device->lateLastCompletion = true;
    std::vector<uint8_t> got;
    EXPECT_EQ(receive(0, &got), USBD_HOST_GONE);
    std::vector<uint8_t> expected = pattern(3000, 1);
    const std::vector<uint8_t> second = pattern(5000, 2);
    expected.insert(expected.end(), second.begin(), second.end());
    EXPECT_EQ(usbd_host_stream_bytes(host_), 8000u);
    EXPECT_TRUE(got == expected);
}

TEST_F(LinkTest, SmallerTransfersWhenTheKernelLacksMemory)
{
    auto device = plug();
    device->submitLimit = 256 * 1024;
    const auto data = pattern(3 * 1024 * 1024 + 5, 9);
    device->write(data);
    ASSERT_EQ(open(), USBD_HOST_OK) << error();
    std::vector<uint8_t> got;
    EXPECT_EQ(receive(data.size(), &got), USBD_HOST_OK) << error();
    EXPECT_TRUE(got == data);
    EXPECT_EQ(device->largestSubmit, 256u * 1024);
}

struct Source {
    const std::vector<uint8_t> *data;
    size_t offset = 0;
    uint64_t confirmed = 0;
};

long feed(uint8_t *buffer, size_t room, void *user)
{
    auto *source = static_cast<Source *>(user);
    // Odd-sized pieces; transfers must still go out whole but for the last.
    const size_t count = std::min({room, source->data->size() - source->offset, size_t(100000)});
    std::copy_n(source->data->begin() + long(source->offset), count, buffer);
    source->offset += count;
    return long(count);
}

void confirm(const uint8_t *, size_t size, void *user)
{
    static_cast<Source *>(user)->confirmed += size;
}

TEST_F(LinkTest, SendsWhatTheDeviceTakesAndSaysWhenItStops)
{
    auto device = plug();
    const auto data = pattern(3 * 1024 * 1024 + 5, 6);
    device->outCapacity = data.size();
    ASSERT_EQ(open(), USBD_HOST_OK) << error();

    Source source{&data};
    EXPECT_EQ(usbd_host_send(host_, feed, confirm, &source), USBD_HOST_OK) << error();
    EXPECT_EQ(usbd_host_stream_bytes(host_), data.size());
    EXPECT_EQ(source.confirmed, data.size());
    EXPECT_TRUE(device->outData == data);

    // A device whose receive asked for less: the rest times out, and what it took is counted.
    device->outData.clear();
    device->outCapacity = 1024 * 1024 + 100;
    source = Source{&data};
    usbd_host_set_idle_timeout(host_, 50);
    EXPECT_EQ(usbd_host_send(host_, feed, confirm, &source), USBD_HOST_TIMEOUT);
    EXPECT_EQ(usbd_host_stream_bytes(host_), 1024u * 1024 + 100);
    EXPECT_EQ(source.confirmed, usbd_host_stream_bytes(host_));

    // A source that fails.
    EXPECT_EQ(usbd_host_send(
                  host_, [](uint8_t *, size_t, void *) -> long { return -1; }, nullptr, nullptr),
              USBD_HOST_STOPPED);
}

TEST_F(LinkTest, FindingSaysWhyNot)
{
    usbd_host_list *list = nullptr;
    EXPECT_EQ(usbd_host_list_devices(host_, &list), USBD_HOST_NOT_FOUND);
    EXPECT_EQ(list, nullptr);
    EXPECT_NE(error().find("ff/00/00"), std::string::npos) << error();

    auto storage = plug(3);
    storage->function = false;
    auto first = plug(5);
    auto second = plug(9);
    second->openError = LIBUSB_ERROR_ACCESS;

    // Listing shows both functions, the refused one without strings but with the rule to install.
    ASSERT_EQ(usbd_host_list_devices(host_, &list), USBD_HOST_OK);
    ASSERT_EQ(usbd_host_list_count(list), 2u);
    const usbd_host_device *listed = usbd_host_list_get(list, 0);
    EXPECT_STREQ(usbd_host_device_string(listed, USBD_HOST_PRODUCT), "Media Device");
    EXPECT_STREQ(usbd_host_device_string(listed, USBD_HOST_INTERFACE_NAME), "CTRL Interface");
    EXPECT_EQ(usbd_host_device_in_endpoint(listed), 0x81);
    EXPECT_EQ(usbd_host_device_out_endpoint(listed), 0x02);
    EXPECT_EQ(usbd_host_device_max_packet(listed, 0x81), 512u);
    EXPECT_EQ(usbd_host_device_max_power(listed), 500u);
    const usbd_host_device *refused = usbd_host_list_get(list, 1);
    EXPECT_STREQ(usbd_host_device_string(refused, USBD_HOST_PRODUCT), "");
    EXPECT_NE(std::string(usbd_host_device_strings_error(refused)).find("70-usbd-host.rules"),
              std::string::npos);
    EXPECT_EQ(usbd_host_list_get(list, 2), nullptr);
    usbd_host_list_free(list);

    EXPECT_EQ(open(), USBD_HOST_AMBIGUOUS);
    EXPECT_NE(error().find("001:005 001:009"), std::string::npos) << error();
    usbd_host_select(host_, 1, 9);
    EXPECT_EQ(open(), USBD_HOST_ACCESS_DENIED);
    EXPECT_NE(error().find("/dev/bus/usb/001/009"), std::string::npos) << error();
    usbd_host_select(host_, 1, 3);
    EXPECT_EQ(open(), USBD_HOST_NOT_FOUND);
    EXPECT_NE(error().find("does not carry"), std::string::npos) << error();
    usbd_host_select(host_, 1, 4);
    EXPECT_EQ(open(), USBD_HOST_NOT_FOUND);
    EXPECT_NE(error().find("no device at 001:004"), std::string::npos) << error();
    first->claimError = LIBUSB_ERROR_BUSY;
    usbd_host_select(host_, 1, 5);
    EXPECT_EQ(open(), USBD_HOST_BUSY);
    EXPECT_NE(error().find("in use by another program"), std::string::npos) << error();
    EXPECT_EQ(usbd_host_opened(host_), nullptr);
    EXPECT_EQ(usbd_host_receive(host_, 0, nullptr, nullptr), USBD_HOST_FAILED);
}

TEST_F(LinkTest, FollowsTheDeviceThroughAReset)
{
    // Each poll must look at the bus afresh: the device shows up on the third look only.
    auto device = plug();
    device->scansUntilPresent = 2;
    usbd_host_set_wait(host_, 1);
    ASSERT_EQ(open(), USBD_HOST_OK) << error();
    EXPECT_EQ(fakeusb::scans(), 3);
    EXPECT_TRUE(device->claimed);

    // The device resets: it leaves in the middle of a write and comes back at another address.
    // Opening again finds the new one and reads on, the old one released. Its controller fails
    // the transfers in flight as a protocol error first, as dummy_hcd does when the gadget is
    // unbound: the device being gone is what counts.
    device->write(pattern(4096, 1));
    device->goneAfter = 1024;
    device->goneAsError = true;
    std::vector<uint8_t> got;
    EXPECT_EQ(receive(0, &got), USBD_HOST_GONE) << error();
    EXPECT_EQ(got.size(), 1024u);
    fakeusb::bus().clear();
    auto again = plug(6);
    again->write(pattern(2000, 2));
    ASSERT_EQ(open(), USBD_HOST_OK) << error();
    EXPECT_FALSE(device->claimed);
    EXPECT_EQ(usbd_host_device_address(usbd_host_opened(host_)), 6);
    got.clear();
    EXPECT_EQ(receive(2000, &got), USBD_HOST_OK) << error();
    EXPECT_TRUE(got == pattern(2000, 2));

    // An interruption raised while no call runs ends the next wait at once.
    usbd_host_close(host_);
    fakeusb::bus().clear();
    usbd_host_interrupt(host_);
    EXPECT_EQ(open(), USBD_HOST_INTERRUPTED);
}

} // namespace
