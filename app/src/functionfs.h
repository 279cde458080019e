#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

// The blobs that turn the FunctionFS instance into the daemon's USB function: one
// vendor-specific interface with bulk endpoints 0x01, 0x02 (OUT) and 0x81, 0x82 (IN) at full,
// high and super speed, and the interface string "CTRL Interface".
namespace usbd::functionfs {

constexpr size_t kDescriptorsBlobSize = 183;
constexpr size_t kStringsBlobSize = 33;

using DescriptorsBlob = std::array<uint8_t, kDescriptorsBlobSize>;
using StringsBlob = std::array<uint8_t, kStringsBlobSize>;

// The descriptors in the kernel's v2 layout: header, then the full-, high- and super-speed sets.
DescriptorsBlob descriptorsBlob();
const StringsBlob &stringsBlob();

} // namespace usbd::functionfs
