#pragma once

// Every fixed path the daemon uses. Those that other processes must know too (the request
// socket, the FunctionFS endpoints, the ION node) live in <usbd/protocol.h>; the device
// controller and gadget configuration are the daemon's alone.
#include <usbd/protocol.h>

namespace usbd {

// Device controller and gadget configuration.
constexpr const char kUdcClassDir[] = "/sys/class/udc/";
constexpr const char kMaxPowerPath[] = "/sys/kernel/config/usb_gadget/g1/configs/c.1/MaxPower";

} // namespace usbd
