#pragma once

// Parsing of the two blobs a FunctionFS client writes to ep0 before its function exists: the
// descriptors blob and the strings blob. The checks mirror the kernel's FunctionFS driver, so a
// blob the emulator accepts is one a real device accepts, and the errno of a refusal is the one
// the kernel would give.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <linux/usb/functionfs.h>

namespace usbdemu {

// The blobs' magics and flags, as the kernel defines them.
constexpr uint32_t kDescriptorsMagic = FUNCTIONFS_DESCRIPTORS_MAGIC;
constexpr uint32_t kStringsMagic = FUNCTIONFS_STRINGS_MAGIC;
constexpr uint32_t kDescriptorsMagicV2 = FUNCTIONFS_DESCRIPTORS_MAGIC_V2;

constexpr uint32_t kHasFsDesc = FUNCTIONFS_HAS_FS_DESC;
constexpr uint32_t kHasHsDesc = FUNCTIONFS_HAS_HS_DESC;
constexpr uint32_t kHasSsDesc = FUNCTIONFS_HAS_SS_DESC;
constexpr uint32_t kHasMsOsDesc = FUNCTIONFS_HAS_MS_OS_DESC;
constexpr uint32_t kEventFd = FUNCTIONFS_EVENTFD;
// The flags the parser knows; like the kernel, it refuses others with ENOSYS.
constexpr uint32_t kKnownDescriptorFlags = FUNCTIONFS_HAS_FS_DESC | FUNCTIONFS_HAS_HS_DESC
                                           | FUNCTIONFS_HAS_SS_DESC | FUNCTIONFS_HAS_MS_OS_DESC
                                           | FUNCTIONFS_VIRTUAL_ADDR | FUNCTIONFS_EVENTFD
                                           | FUNCTIONFS_ALL_CTRL_RECIP | FUNCTIONFS_CONFIG0_SETUP;

// The smallest write ep0 takes as a blob: the kernel refuses anything shorter up front.
constexpr size_t kMinBlobLength = 16;

struct Endpoint {
    uint8_t address = 0;               // bEndpointAddress: bit 7 set for IN (device to host)
    uint8_t attributes = 0;            // bmAttributes: the low two bits are the transfer type
    uint16_t maxPacket[3] = {0, 0, 0}; // full, high, super speed; 0 when that set is absent

    bool isIn() const { return address & 0x80; }
    const char *typeName() const;
};

struct Interface {
    uint8_t number = 0;
    uint8_t cls = 0;
    uint8_t subclass = 0;
    uint8_t protocol = 0;
    uint8_t stringIndex = 0; // iInterface of the first speed set that has this interface
    uint8_t endpointCount = 0;
};

// What the host will see once the function is ready; filled in by the two parsers.
struct FunctionLayout {
    uint32_t flags = 0;
    uint32_t counts[3] = {0, 0, 0}; // descriptors per speed set
    uint32_t osDescCount = 0;
    std::vector<Interface> interfaces; // in order of first appearance
    std::vector<Endpoint> endpoints;   // ep1..epN, in the order of the first present speed set
    uint32_t stringsNeeded = 0;        // highest string index the descriptors refer to
    bool hasEventFd = false;
    int32_t eventFd = -1; // the caller's descriptor number, meaningful only with hasEventFd

    struct Language {
        uint16_t id = 0;
        std::vector<std::string> strings; // index 0 is string 1
    };
    std::vector<Language> languages;
};

// Parses a descriptors blob. Returns 0 and fills `layout`, or a negative errno (-EINVAL for
// malformed data, -ENOSYS for unknown flags) with a human-readable reason in `why`.
int parseDescriptors(const uint8_t *data, size_t len, FunctionLayout &layout, std::string &why);

// Parses a strings blob against a layout that already holds the parsed descriptors.
int parseStrings(const uint8_t *data, size_t len, FunctionLayout &layout, std::string &why);

} // namespace usbdemu
