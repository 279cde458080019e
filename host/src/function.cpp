// Recognising the function in a configuration, and the small value types around it.

#include "function.h"

#include <libusb.h>

#include <cstdio>

namespace usbd::host {

namespace {

constexpr uint8_t kTransferTypeMask = 0x03;
// wMaxPacketSize bits 11 and 12 count extra transactions per microframe (high-bandwidth
// periodic endpoints); the packet size proper is the low 11 bits.
constexpr uint16_t kPacketSizeMask = 0x07FF;

std::optional<FunctionInterface> matchSetting(const libusb_interface_descriptor &setting)
{
    if (setting.bInterfaceClass != kFunctionClass || setting.bInterfaceSubClass != kFunctionSubClass
        || setting.bInterfaceProtocol != kFunctionProtocol || setting.bNumEndpoints != kFunctionEndpointCount
        || setting.endpoint == nullptr)
        return std::nullopt;

    FunctionInterface function;
    function.interfaceNumber = setting.bInterfaceNumber;
    function.alternateSetting = setting.bAlternateSetting;
    function.stringIndex = setting.iInterface;
    int ins = 0;
    int outs = 0;
    for (int i = 0; i < setting.bNumEndpoints; ++i) {
        const libusb_endpoint_descriptor &descriptor = setting.endpoint[i];
        const Endpoint endpoint{descriptor.bEndpointAddress, uint16_t(descriptor.wMaxPacketSize & kPacketSizeMask)};
        // A bulk endpoint without a packet size cannot carry data; such a descriptor is not ours.
        if ((descriptor.bmAttributes & kTransferTypeMask) != LIBUSB_TRANSFER_TYPE_BULK || endpoint.maxPacketSize == 0)
            return std::nullopt;
        if (endpoint.address & LIBUSB_ENDPOINT_IN) {
            if (ins++ == 0)
                function.in = endpoint;
        } else if (outs++ == 0) {
            function.out = endpoint;
        }
        function.endpoints.push_back(endpoint);
    }
    if (ins != 2 || outs != 2)
        return std::nullopt;
    return function;
}

} // namespace

std::optional<FunctionInterface> findFunction(const libusb_config_descriptor &config)
{
    if (config.interface == nullptr)
        return std::nullopt;
    for (int i = 0; i < config.bNumInterfaces; ++i) {
        const libusb_interface &interface = config.interface[i];
        if (interface.altsetting == nullptr)
            continue;
        for (int alt = 0; alt < interface.num_altsetting; ++alt) {
            if (auto function = matchSetting(interface.altsetting[alt]))
                return function;
        }
    }
    return std::nullopt;
}

std::optional<BusAddress> parseBusAddress(std::string_view text)
{
    // Digits only, at most three of them, so that nothing overflows and "+1" or " 1" are refused.
    auto number = [](std::string_view digits, unsigned min, unsigned max) -> std::optional<uint8_t> {
        if (digits.empty() || digits.size() > 3)
            return std::nullopt;
        unsigned value = 0;
        for (char c : digits) {
            if (c < '0' || c > '9')
                return std::nullopt;
            value = value * 10 + unsigned(c - '0');
        }
        if (value < min || value > max)
            return std::nullopt;
        return uint8_t(value);
    };
    const size_t colon = text.find(':');
    if (colon == std::string_view::npos)
        return std::nullopt;
    const auto bus = number(text.substr(0, colon), 1, 255);
    const auto address = number(text.substr(colon + 1), 1, 127);
    if (!bus || !address)
        return std::nullopt;
    return BusAddress{*bus, *address};
}

std::string toString(BusAddress location)
{
    char text[8];
    std::snprintf(text, sizeof(text), "%03u:%03u", unsigned(location.bus), unsigned(location.address));
    return text;
}

const char *speedName(int libusbSpeed)
{
    switch (libusbSpeed) {
    case LIBUSB_SPEED_LOW:
        return "low-speed";
    case LIBUSB_SPEED_FULL:
        return "full-speed";
    case LIBUSB_SPEED_HIGH:
        return "high-speed";
    case LIBUSB_SPEED_SUPER:
        return "super-speed";
    case LIBUSB_SPEED_SUPER_PLUS:
        return "super-speed-plus";
    default:
        return "unknown";
    }
}

unsigned maxPowerMilliamps(uint8_t bMaxPower, int libusbSpeed)
{
    return bMaxPower * (libusbSpeed >= LIBUSB_SPEED_SUPER ? 8u : 2u);
}

size_t nextReceiveLength(uint64_t limit, uint64_t receivedOrAsked, size_t chunk, uint16_t maxPacketSize)
{
    if (limit == 0)
        return chunk;
    if (receivedOrAsked >= limit)
        return 0;
    uint64_t wanted = limit - receivedOrAsked;
    if (maxPacketSize != 0)
        wanted = (wanted + maxPacketSize - 1) / maxPacketSize * maxPacketSize;
    return wanted < chunk ? size_t(wanted) : chunk;
}

std::string permissionMessage(BusAddress location, uint16_t vendorId, uint16_t productId)
{
    std::string node = toString(location);
    node[3] = '/';
    char ids[16];
    std::snprintf(ids, sizeof(ids), "%04x:%04x", vendorId, productId);
    std::string message = "permission denied opening /dev/bus/usb/" + node + " (device " + ids + "): ";
    const std::string rule = USBD_HOST_UDEV_RULE;
    if (vendorId == kDefaultVendorId && productId == kDefaultProductId)
        return message + "the udev rule " + rule + " opens it to the group plugdev and the user at the seat; "
               "be in plugdev (log in again after adding yourself), and if the rule was installed after the "
               "device was plugged in, run `udevadm trigger` or re-plug it";
    char line[200];
    std::snprintf(line, sizeof(line),
                  "SUBSYSTEM==\"usb\", ENV{DEVTYPE}==\"usb_device\", ATTR{idVendor}==\"%04x\", "
                  "ATTR{idProduct}==\"%04x\", MODE=\"0660\", GROUP=\"plugdev\", TAG+=\"uaccess\"",
                  vendorId, productId);
    return message + "the udev rule " + rule + " covers only the default ids 1d6b:0105; for this device add\n  "
           + line + "\nto /etc/udev/rules.d/70-usbd-host-local.rules (usbd-gadget host-rule prints it on the "
           "device), then run `udevadm control --reload && udevadm trigger`, and be in the group plugdev";
}

} // namespace usbd::host
