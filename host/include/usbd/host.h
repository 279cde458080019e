#pragma once

// libusbd-host: the host side of the usbd link. Finds the device's vendor function on the bus,
// opens it, and streams data from its bulk IN endpoint and to its bulk OUT endpoint.
//
// The function is recognised by its shape alone: one interface of class 0xFF, subclass 0,
// protocol 0 with four bulk endpoints, two OUT and two IN. Its endpoint addresses are never
// assumed: host controllers may renumber them, so the first bulk IN endpoint in descriptor order
// is where the device sends and the first bulk OUT endpoint is where it receives.

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct libusb_config_descriptor;
struct libusb_context;
struct libusb_device_handle;

namespace usbd::host {

constexpr uint8_t kFunctionClass = 0xFF;
constexpr uint8_t kFunctionSubClass = 0;
constexpr uint8_t kFunctionProtocol = 0;
constexpr uint8_t kFunctionEndpointCount = 4;

// The ids the device's gadget set-up uses unless told otherwise. Finding the function does not
// depend on them; only the udev rule does.
constexpr uint16_t kDefaultVendorId = 0x1d6b;
constexpr uint16_t kDefaultProductId = 0x0105;
constexpr const char kUdevRule[] = "70-usbd-host.rules";

// ---- Finding the function in descriptors

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

// ---- Naming a device on the bus

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

// ---- SHA-256, for checking what arrived

class Sha256 {
public:
    static constexpr size_t kDigestSize = 32;

    Sha256();
    void update(const void *data, size_t size);
    // The digest of everything updated so far; the object may not be updated afterwards.
    std::array<uint8_t, kDigestSize> finish();
    std::string finishHex();

private:
    void block(const uint8_t *data);

    uint32_t state_[8];
    uint8_t pending_[64];
    size_t pendingSize_ = 0;
    uint64_t totalBytes_ = 0;
};

// ---- Devices and transfers

enum class Status {
    Ok,
    NotFound,     // no device carries the function (or none at the requested bus address)
    Ambiguous,    // several do, and none was chosen
    AccessDenied, // the device node is not open to this user
    Busy,         // another program has claimed the interface
    Gone,         // the device left the bus
    Timeout,      // nothing moved for the idle time-out
    Interrupted,  // the caller's stop flag was raised
    Stopped,      // the caller's data callback asked to stop
    Failed,       // any other USB error
};

struct DeviceInfo {
    BusAddress location;
    uint16_t vendorId = 0;
    uint16_t productId = 0;
    int speed = 0; // libusb_speed
    uint8_t configurationValue = 0;
    unsigned maxPowerMilliamps = 0;
    FunctionInterface function;
    // Strings need the device opened; when it cannot be, stringsError says why.
    std::string manufacturer;
    std::string product;
    std::string serialNumber;
    std::string interfaceName;
    std::string stringsError;
};

// Shared by waiting and streaming: poll this flag (set from a signal handler) to give up early.
using StopFlag = std::atomic<bool>;

struct FindOptions {
    std::optional<BusAddress> device; // only this one
    bool wait = false;                // until the function appears (or *stop is raised)
    const StopFlag *stop = nullptr;
};

// Every attached device that carries the function, strings read where the device may be opened.
// With wait, returns once there is at least one. Status NotFound (empty list) or Interrupted;
// Failed when libusb cannot start; *error says what happened.
Status listDevices(const FindOptions &options, std::vector<DeviceInfo> *devices, std::string *error);

struct StreamOptions {
    uint64_t limit = 0;        // bytes; 0 for no limit
    int idleTimeoutMs = 10000; // end when nothing moved this long; 0 waits for ever
    size_t transferSize = 1024 * 1024;
    int transfersInFlight = 4;
    const StopFlag *stop = nullptr;
    // Called about ten times a second with the bytes moved so far.
    std::function<void(uint64_t bytes, double seconds)> progress;
};

struct StreamResult {
    Status status = Status::Ok;
    uint64_t bytes = 0;    // delivered to the sink, or taken by the device
    double seconds = 0;    // from the start to the last byte moved
    uint64_t discarded = 0; // received past the limit (within the last packet) and dropped
    std::string message;   // what went wrong, when status is not Ok
};

// The function of one device, opened and its interface claimed, until destroyed: then the
// interface is released (and a kernel driver detached for it re-attached) and the device closed.
class Link {
public:
    // Opens the single device carrying the function, or options.device. Status NotFound,
    // Ambiguous, AccessDenied, Busy, Gone, Interrupted or Failed with *error saying why.
    static Status open(const FindOptions &options, std::unique_ptr<Link> *link, std::string *error);
    ~Link();
    Link(const Link &) = delete;
    Link &operator=(const Link &) = delete;

    const DeviceInfo &device() const { return device_; }

    // Reads bulk IN and hands every byte, in order, to sink (which returns false to stop).
    // Ends with Ok at the limit, Timeout after the idle time, or the reason it broke off; bytes
    // still on their way are collected before it returns, so none is lost between calls.
    StreamResult receive(const StreamOptions &options, const std::function<bool(const uint8_t *, size_t)> &sink);

    // Writes to bulk OUT what source yields (it fills the buffer and returns the byte count, 0
    // at the end, negative to stop); sent sees each piece once the device has taken it.
    // No zero-length packet is sent at the end: the device's receive asks for an exact size,
    // and a stray empty packet would end its next receive at once.
    StreamResult send(const StreamOptions &options, const std::function<long(uint8_t *, size_t)> &source,
                      const std::function<void(const uint8_t *, size_t)> &sent);

private:
    Link() = default;

    libusb_context *context_ = nullptr;
    libusb_device_handle *handle_ = nullptr;
    bool claimed_ = false;
    DeviceInfo device_;
};

// ---- Pieces of the transfer loop, exposed for their tests

// How much the next bulk IN transfer may ask for: at most chunk, and with a limit no more than
// is still missing, rounded up to whole packets (a device that fills its last packet would
// otherwise overflow the transfer and lose that packet). 0 when nothing more may be asked for.
size_t nextReceiveLength(uint64_t limit, uint64_t receivedOrAsked, size_t chunk, uint16_t maxPacketSize);

} // namespace usbd::host
