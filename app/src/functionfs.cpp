#include "functionfs.h"

#include <cstring>

#include <linux/usb/ch9.h>
#include <linux/usb/functionfs.h>

namespace usbd::functionfs {

namespace {

// The descriptors and strings as tables, one descriptor to a line.
// clang-format off

// Interface: vendor specific, four endpoints, string iInterface (0: none).
#define USBD_INTERFACE(iInterface) \
    USB_DT_INTERFACE_SIZE, USB_DT_INTERFACE, 0, 0, 4, USB_CLASS_VENDOR_SPEC, 0, 0, iInterface
// Bulk endpoint with the 9-byte (audio-style) length that carries bRefresh and bSynchAddress.
#define USBD_ENDPOINT(address, packetLo, packetHi) \
    USB_DT_ENDPOINT_AUDIO_SIZE, USB_DT_ENDPOINT, address, USB_ENDPOINT_XFER_BULK, packetLo, packetHi, 0, 0, 0
#define USBD_SS_COMPANION(maxBurst) USB_DT_SS_EP_COMP_SIZE, USB_DT_SS_ENDPOINT_COMP, maxBurst, 0, 0, 0

constexpr uint8_t kFullSpeed[] = {
    USBD_INTERFACE(1),
    USBD_ENDPOINT(0x01, 0x40, 0x00), USBD_ENDPOINT(0x02, 0x40, 0x00),
    USBD_ENDPOINT(0x81, 0x40, 0x00), USBD_ENDPOINT(0x82, 0x40, 0x00),
};
constexpr uint8_t kHighSpeed[] = {
    USBD_INTERFACE(1),
    USBD_ENDPOINT(0x01, 0x00, 0x02), USBD_ENDPOINT(0x02, 0x00, 0x02),
    USBD_ENDPOINT(0x81, 0x00, 0x02), USBD_ENDPOINT(0x82, 0x00, 0x02),
};
// Only the IN endpoint the daemon streams on asks for bursts.
constexpr uint8_t kSuperSpeed[] = {
    USBD_INTERFACE(0),
    USBD_ENDPOINT(0x01, 0x00, 0x04), USBD_SS_COMPANION(0),
    USBD_ENDPOINT(0x02, 0x00, 0x04), USBD_SS_COMPANION(0),
    USBD_ENDPOINT(0x81, 0x00, 0x04), USBD_SS_COMPANION(15),
    USBD_ENDPOINT(0x82, 0x00, 0x04), USBD_SS_COMPANION(0),
};

#undef USBD_INTERFACE
#undef USBD_ENDPOINT
#undef USBD_SS_COMPANION

// clang-format on

constexpr uint32_t kFsCount = 5;
constexpr uint32_t kHsCount = 5;
constexpr uint32_t kSsCount = 9;

static_assert(sizeof(kFullSpeed) == 45 && sizeof(kHighSpeed) == 45 && sizeof(kSuperSpeed) == 69,
              "descriptor set sizes");
static_assert(sizeof(usb_functionfs_descs_head_v2) + 3 * sizeof(uint32_t) + sizeof(kFullSpeed)
                      + sizeof(kHighSpeed) + sizeof(kSuperSpeed)
                  == kDescriptorsBlobSize,
              "descriptors blob size");

void putLe32(uint8_t *at, uint32_t value)
{
    at[0] = uint8_t(value);
    at[1] = uint8_t(value >> 8);
    at[2] = uint8_t(value >> 16);
    at[3] = uint8_t(value >> 24);
}

// clang-format off
constexpr StringsBlob kStrings = {
    FUNCTIONFS_STRINGS_MAGIC, 0, 0, 0,
    kStringsBlobSize, 0, 0, 0,
    1, 0, 0, 0,    // strings per language
    1, 0, 0, 0,    // languages
    0x09, 0x04,    // en-US
    'C', 'T', 'R', 'L', ' ', 'I', 'n', 't', 'e', 'r', 'f', 'a', 'c', 'e', 0,
};
// clang-format on

} // namespace

DescriptorsBlob descriptorsBlob()
{
    // The v2 header, then one count per speed that has a set, then the sets.
    DescriptorsBlob blob{};
    putLe32(&blob[0], FUNCTIONFS_DESCRIPTORS_MAGIC_V2);
    putLe32(&blob[4], uint32_t(kDescriptorsBlobSize));
    putLe32(&blob[8], FUNCTIONFS_HAS_FS_DESC | FUNCTIONFS_HAS_HS_DESC | FUNCTIONFS_HAS_SS_DESC);
    putLe32(&blob[12], kFsCount);
    putLe32(&blob[16], kHsCount);
    putLe32(&blob[20], kSsCount);
    size_t at = 24;
    memcpy(&blob[at], kFullSpeed, sizeof(kFullSpeed));
    at += sizeof(kFullSpeed);
    memcpy(&blob[at], kHighSpeed, sizeof(kHighSpeed));
    at += sizeof(kHighSpeed);
    memcpy(&blob[at], kSuperSpeed, sizeof(kSuperSpeed));
    return blob;
}

const StringsBlob &stringsBlob()
{
    return kStrings;
}

} // namespace usbd::functionfs
