#pragma once

// The library's own view of the function: recognising it in a configuration, and the small
// value types and rules around it. Not part of the public interface; the tests use it directly.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct libusb_config_descriptor;

namespace usbd::host {

constexpr uint8_t kFunctionClass = 0xFF;
constexpr uint8_t kFunctionSubClass = 0;
constexpr uint8_t kFunctionProtocol = 0;
constexpr uint8_t kFunctionEndpointCount = 4;

// The ids the device's gadget set-up uses unless told otherwise. Finding the function does not
// depend on them; only the udev rule does.
constexpr uint16_t kDefaultVendorId = 0x1d6b;
constexpr uint16_t kDefaultProductId = 0x0105;

struct Endpoint {
    uint8_t address = 0;
    uint16_t maxPacketSize = 0;
};

struct FunctionInterface {
    uint8_t interfaceNumber = 0;
    uint8_t alternateSetting = 0;
    uint8_t stringIndex = 0;         // iInterface; 0 when the device names no string
    std::vector<Endpoint> endpoints; // all four, in descriptor order
    Endpoint in;                     // the first bulk IN: what the device sends arrives here
    Endpoint out;                    // the first bulk OUT: what the device's receive reads
};

// The first interface setting of the configuration that has the function's shape, walking
// interfaces and their alternate settings in descriptor order.
std::optional<FunctionInterface> findFunction(const libusb_config_descriptor &config);

struct BusAddress {
    uint8_t bus = 0;
    uint8_t address = 0;
    bool operator==(const BusAddress &other) const { return bus == other.bus && address == other.address; }
    bool operator!=(const BusAddress &other) const { return !(*this == other); }
};

// "BUS:ADDR" in decimal, as lsusb prints them ("1:5" or "001:005"). Bus 1 to 255, address 1
// to 127; anything else is refused.
std::optional<BusAddress> parseBusAddress(std::string_view text);
// "001:005", the form lsusb and /dev/bus/usb use.
std::string toString(BusAddress location);

// The link speed as Linux names it ("high-speed", "super-speed", ...), from a libusb_speed value.
const char *speedName(int libusbSpeed);
// A configuration's bMaxPower in mA: the unit is 8 mA on super-speed links, 2 mA below.
unsigned maxPowerMilliamps(uint8_t bMaxPower, int libusbSpeed);

// How much the next bulk IN transfer may ask for: at most chunk, and with a limit no more than
// is still missing, rounded up to whole packets (a device that fills its last packet would
// otherwise overflow the transfer and lose that packet). 0 when nothing more may be asked for.
size_t nextReceiveLength(uint64_t limit, uint64_t receivedOrAsked, size_t chunk, uint16_t maxPacketSize);

// What a refused open should tell the user: which rule gives access to devices with these ids,
// and for ids other than the defaults the exact line to add for them.
std::string permissionMessage(BusAddress location, uint16_t vendorId, uint16_t productId);

} // namespace usbd::host
