#pragma once

// Every fixed path and protocol constant the daemon uses, in one place.
namespace usbd {

// FunctionFS instance of the daemon's function.
constexpr const char kFfsEp0Path[] = "/dev/usb-ffs/bulk/ep0";
constexpr const char kFfsEp1Path[] = "/dev/usb-ffs/bulk/ep1"; // bulk OUT 0x01, host to device
constexpr const char kFfsEp3Path[] = "/dev/usb-ffs/bulk/ep3"; // bulk IN 0x81, device to host

// Device controller and gadget configuration.
constexpr const char kUdcClassDir[] = "/sys/class/udc/";
constexpr const char kMaxPowerPath[] = "/sys/kernel/config/usb_gadget/g1/configs/c.1/MaxPower";

// ION allocator node.
constexpr const char kIonDevicePath[] = "/dev/ion";

// Local request socket.
constexpr const char kSocketPath[] = "/tmp/usbd-socket";

} // namespace usbd
