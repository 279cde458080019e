// The host finds the function only by the shape of its descriptors, and real controllers change
// the addresses: each case is a configuration a host has shown or could show.
#include <gtest/gtest.h>

#include <libusb.h>

#include <deque>
#include <vector>

#include "function.h"

namespace {

using usbd::host::findFunction;

libusb_endpoint_descriptor endpoint(uint8_t address, uint16_t packet, uint8_t type = LIBUSB_TRANSFER_TYPE_BULK)
{
    libusb_endpoint_descriptor descriptor{};
    descriptor.bLength = 7;
    descriptor.bDescriptorType = LIBUSB_DT_ENDPOINT;
    descriptor.bEndpointAddress = address;
    descriptor.bmAttributes = type;
    descriptor.wMaxPacketSize = packet;
    return descriptor;
}

// Builds configurations the way libusb hands them out: arrays of interfaces, each an array of
// alternate settings, each pointing at its endpoints. Everything lives as long as the builder.
class ConfigBuilder {
public:
    // Starts a new interface number; settings added after it are its alternate settings.
    ConfigBuilder &interface()
    {
        settings_.emplace_back();
        return *this;
    }

    ConfigBuilder &setting(uint8_t cls, uint8_t subClass, uint8_t protocol,
                           std::vector<libusb_endpoint_descriptor> endpoints, uint8_t iInterface = 0)
    {
        endpoints_.push_back(std::move(endpoints));
        libusb_interface_descriptor descriptor{};
        descriptor.bLength = 9;
        descriptor.bDescriptorType = LIBUSB_DT_INTERFACE;
        descriptor.bInterfaceNumber = uint8_t(settings_.size() - 1);
        descriptor.bAlternateSetting = uint8_t(settings_.back().size());
        descriptor.bNumEndpoints = uint8_t(endpoints_.back().size());
        descriptor.bInterfaceClass = cls;
        descriptor.bInterfaceSubClass = subClass;
        descriptor.bInterfaceProtocol = protocol;
        descriptor.iInterface = iInterface;
        descriptor.endpoint = endpoints_.back().empty() ? nullptr : endpoints_.back().data();
        settings_.back().push_back(descriptor);
        return *this;
    }

    const libusb_config_descriptor &build()
    {
        interfaces_.clear();
        for (const auto &settings : settings_)
            interfaces_.push_back(libusb_interface{settings.data(), int(settings.size())});
        config_ = libusb_config_descriptor{};
        config_.bNumInterfaces = uint8_t(interfaces_.size());
        config_.bConfigurationValue = 1;
        config_.interface = interfaces_.data();
        return config_;
    }

private:
    std::deque<std::vector<libusb_endpoint_descriptor>> endpoints_; // deque: pointers stay valid
    std::deque<std::vector<libusb_interface_descriptor>> settings_;
    std::vector<libusb_interface> interfaces_;
    libusb_config_descriptor config_{};
};

std::vector<libusb_endpoint_descriptor> functionEndpoints(uint8_t out1, uint8_t out2, uint8_t in1, uint8_t in2,
                                                          uint16_t packet)
{
    return {endpoint(out1, packet), endpoint(out2, packet), endpoint(in1, packet), endpoint(in2, packet)};
}

TEST(FindFunction, AddressesAsDeclaredAndAsDummyHcdRenumbersThem)
{
    ConfigBuilder declared;
    declared.interface().setting(0xFF, 0, 0, functionEndpoints(0x01, 0x02, 0x81, 0x82, 512), 1);
    auto function = findFunction(declared.build());
    ASSERT_TRUE(function);
    EXPECT_EQ(function->interfaceNumber, 0);
    EXPECT_EQ(function->alternateSetting, 0);
    EXPECT_EQ(function->stringIndex, 1);
    EXPECT_EQ(function->in.address, 0x81);
    EXPECT_EQ(function->out.address, 0x01);
    EXPECT_EQ(function->in.maxPacketSize, 512);

    // Seen at super speed through dummy_hcd: other numbers, no interface string.
    ConfigBuilder renumbered;
    renumbered.interface().setting(0xFF, 0, 0, functionEndpoints(0x02, 0x07, 0x81, 0x86, 1024));
    function = findFunction(renumbered.build());
    ASSERT_TRUE(function);
    EXPECT_EQ(function->stringIndex, 0);
    EXPECT_EQ(function->out.address, 0x02);
    EXPECT_EQ(function->in.address, 0x81);
    ASSERT_EQ(function->endpoints.size(), 4u);
    EXPECT_EQ(function->endpoints[1].address, 0x07);
    EXPECT_EQ(function->endpoints[3].address, 0x86);
    EXPECT_EQ(function->out.maxPacketSize, 1024);

    // "First" is descriptor order, not the lower address.
    ConfigBuilder reordered;
    reordered.interface().setting(0xFF, 0, 0,
                                  {endpoint(0x86, 64), endpoint(0x05, 64), endpoint(0x81, 64), endpoint(0x02, 64)});
    function = findFunction(reordered.build());
    ASSERT_TRUE(function);
    EXPECT_EQ(function->in.address, 0x86);
    EXPECT_EQ(function->out.address, 0x05);

    // High-bandwidth bits in wMaxPacketSize are not part of the packet size.
    ConfigBuilder extraBits;
    extraBits.interface().setting(0xFF, 0, 0, functionEndpoints(0x01, 0x02, 0x81, 0x82, 0x1200));
    function = findFunction(extraBits.build());
    ASSERT_TRUE(function);
    EXPECT_EQ(function->in.maxPacketSize, 0x200);
}

TEST(FindFunction, BehindOtherInterfacesAndInAnAlternateSetting)
{
    // A composite device: mass storage (bulk IN and OUT too) and a vendor interface of another
    // shape come first.
    ConfigBuilder composite;
    composite.interface().setting(0x08, 0x06, 0x50, {endpoint(0x81, 512), endpoint(0x01, 512)});
    composite.interface().setting(0xFF, 0xFF, 0xFF, functionEndpoints(0x02, 0x03, 0x82, 0x83, 512));
    composite.interface().setting(0xFF, 0, 0, functionEndpoints(0x04, 0x05, 0x84, 0x85, 512), 7);
    auto function = findFunction(composite.build());
    ASSERT_TRUE(function);
    EXPECT_EQ(function->interfaceNumber, 2);
    EXPECT_EQ(function->stringIndex, 7);
    EXPECT_EQ(function->out.address, 0x04);
    EXPECT_EQ(function->in.address, 0x84);

    // Alternate setting 0 without endpoints (bandwidth parked), the function in setting 1.
    ConfigBuilder alternate;
    alternate.interface().setting(0xFF, 0, 0, {}).setting(0xFF, 0, 0, functionEndpoints(0x01, 0x02, 0x81, 0x82, 512));
    function = findFunction(alternate.build());
    ASSERT_TRUE(function);
    EXPECT_EQ(function->interfaceNumber, 0);
    EXPECT_EQ(function->alternateSetting, 1);
}

TEST(FindFunction, RefusesInterfacesOfAnotherShape)
{
    struct Case {
        const char *what;
        uint8_t cls, subClass, protocol;
        std::vector<libusb_endpoint_descriptor> endpoints;
    };
    const std::vector<Case> cases = {
        {"another class", 0x08, 0, 0, functionEndpoints(0x01, 0x02, 0x81, 0x82, 512)},
        {"another subclass", 0xFF, 0x42, 0, functionEndpoints(0x01, 0x02, 0x81, 0x82, 512)},
        {"another protocol", 0xFF, 0, 1, functionEndpoints(0x01, 0x02, 0x81, 0x82, 512)},
        {"two endpoints", 0xFF, 0, 0, {endpoint(0x01, 512), endpoint(0x81, 512)}},
        {"no endpoints", 0xFF, 0, 0, {}},
        {"three IN", 0xFF, 0, 0, functionEndpoints(0x01, 0x83, 0x81, 0x82, 512)},
        {"interrupt endpoint", 0xFF, 0, 0,
         {endpoint(0x01, 512), endpoint(0x02, 512), endpoint(0x81, 512),
          endpoint(0x82, 64, LIBUSB_TRANSFER_TYPE_INTERRUPT)}},
        {"packet size 0", 0xFF, 0, 0, functionEndpoints(0x01, 0x02, 0x81, 0x82, 0)},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        ConfigBuilder builder;
        builder.interface().setting(c.cls, c.subClass, c.protocol, c.endpoints);
        EXPECT_FALSE(findFunction(builder.build()));
    }

    // bNumEndpoints says four, but libusb found none to point at.
    ConfigBuilder dangling;
    dangling.interface().setting(0xFF, 0, 0, {});
    libusb_config_descriptor config = dangling.build();
    libusb_interface_descriptor setting = config.interface[0].altsetting[0];
    setting.bNumEndpoints = 4;
    const libusb_interface interface{&setting, 1};
    config.interface = &interface;
    EXPECT_FALSE(findFunction(config));

    // A configuration without interfaces at all.
    libusb_config_descriptor empty{};
    EXPECT_FALSE(findFunction(empty));
}

TEST(BusAddress, ParsesWhatLsusbPrintsAndRefusesTheRest)
{
    using usbd::host::BusAddress;
    using usbd::host::parseBusAddress;
    EXPECT_EQ(parseBusAddress("1:5"), (BusAddress{1, 5}));
    EXPECT_EQ(parseBusAddress("001:005"), (BusAddress{1, 5}));
    EXPECT_EQ(parseBusAddress("255:127"), (BusAddress{255, 127}));
    EXPECT_EQ(parseBusAddress("010:010"), (BusAddress{10, 10})); // decimal, as lsusb means it
    for (const char *bad : {"", ":", "1", "1:", ":5", "1:5:7", "a:b", "0:5", "1:0", "256:1", "1:128", " 1:5",
                            "1:5 ", "+1:5", "-1:5", "0x1:5", "0001:5", "1:999999999999"}) {
        SCOPED_TRACE(bad);
        EXPECT_FALSE(parseBusAddress(bad));
    }
    EXPECT_EQ(usbd::host::toString(BusAddress{3, 42}), "003:042");
}

TEST(ReceiveLength, NeverAsksPastTheLimitByMoreThanThePacketItEndsIn)
{
    using usbd::host::nextReceiveLength;
    const size_t chunk = 1 << 20;
    EXPECT_EQ(nextReceiveLength(0, 12345, chunk, 512), chunk); // no limit
    EXPECT_EQ(nextReceiveLength(3000016, 0, chunk, 512), chunk);
    // 3000016 - 2 MiB = 902864 bytes left: whole packets, the last one partly wanted.
    EXPECT_EQ(nextReceiveLength(3000016, 2 * chunk, chunk, 512), 903168u);
    EXPECT_EQ(nextReceiveLength(1000, 0, chunk, 512), 1024u);
    EXPECT_EQ(nextReceiveLength(1000, 600, chunk, 512), 512u);
    EXPECT_EQ(nextReceiveLength(1000, 1000, chunk, 512), 0u);
    EXPECT_EQ(nextReceiveLength(1000, 1024, chunk, 512), 0u);
    EXPECT_EQ(nextReceiveLength(1, 0, chunk, 1024), 1024u);
    EXPECT_EQ(nextReceiveLength(1000, 0, chunk, 0), 1000u); // no packet size: no rounding, no division
}

TEST(PermissionMessage, NamesTheInstalledRuleAndGivesTheLineForOtherIds)
{
    using usbd::host::permissionMessage;
    const std::string standard = permissionMessage({1, 9}, 0x1d6b, 0x0105);
    EXPECT_NE(standard.find("/dev/bus/usb/001/009"), std::string::npos) << standard;
    EXPECT_NE(standard.find("/lib/udev/rules.d/70-usbd-host.rules"), std::string::npos) << standard;
    EXPECT_NE(standard.find("plugdev"), std::string::npos) << standard;

    // The installed rule cannot match a device set up with other ids: the message carries the
    // line that does, with those ids, and where it goes.
    const std::string custom = permissionMessage({2, 3}, 0x1234, 0xabcd);
    EXPECT_NE(custom.find("ATTR{idVendor}==\"1234\", ATTR{idProduct}==\"abcd\""), std::string::npos) << custom;
    EXPECT_NE(custom.find("/etc/udev/rules.d/"), std::string::npos) << custom;
    EXPECT_NE(custom.find("udevadm control --reload"), std::string::npos) << custom;
}

} // namespace
