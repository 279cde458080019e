#include "functionfs.h"

#include <cstring>

namespace usbd::functionfs {

namespace {

constexpr uint32_t kDescriptorsMagicV2 = 3; // FUNCTIONFS_DESCRIPTORS_MAGIC_V2
constexpr uint32_t kStringsMagic = 2;       // FUNCTIONFS_STRINGS_MAGIC
constexpr uint32_t kHasFsDesc = 1;
constexpr uint32_t kHasHsDesc = 2;
constexpr uint32_t kHasSsDesc = 4;

// Endpoint descriptors carry the 9-byte (audio-style) length with bRefresh and bSynchAddress.
#define USBD_INTERFACE(iInterface) 9, 0x04, 0, 0, 4, 0xFF, 0, 0, iInterface
#define USBD_ENDPOINT(address, packetLo, packetHi) 9, 0x05, address, 0x02, packetLo, packetHi, 0, 0, 0
#define USBD_SS_COMPANION(maxBurst) 6, 0x30, maxBurst, 0, 0, 0

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

constexpr uint32_t kFsCount = 5;
constexpr uint32_t kHsCount = 5;
constexpr uint32_t kSsCount = 9;
constexpr size_t kHeaderSize = 24;

static_assert(sizeof(kFullSpeed) == 45 && sizeof(kHighSpeed) == 45 && sizeof(kSuperSpeed) == 69,
              "descriptor set sizes");
static_assert(kHeaderSize + sizeof(kFullSpeed) + sizeof(kHighSpeed) + sizeof(kSuperSpeed) ==
                  kDescriptorsBlobSize,
              "descriptors blob size");

void putLe32(uint8_t *at, uint32_t value)
{
    at[0] = uint8_t(value);
    at[1] = uint8_t(value >> 8);
    at[2] = uint8_t(value >> 16);
    at[3] = uint8_t(value >> 24);
}

constexpr StringsBlob kStrings = {
    2, 0, 0, 0,    // FUNCTIONFS_STRINGS_MAGIC
    33, 0, 0, 0,   // length
    1, 0, 0, 0,    // strings per language
    1, 0, 0, 0,    // languages
    0x09, 0x04,    // en-US
    'C', 'T', 'R', 'L', ' ', 'I', 'n', 't', 'e', 'r', 'f', 'a', 'c', 'e', 0,
};
static_assert(kStringsMagic == 2, "strings magic");

} // namespace

DescriptorsBlob descriptorsBlob()
{
    DescriptorsBlob blob{};
    putLe32(&blob[0], kDescriptorsMagicV2);
    putLe32(&blob[4], uint32_t(kDescriptorsBlobSize));
    putLe32(&blob[8], kHasFsDesc | kHasHsDesc | kHasSsDesc);
    putLe32(&blob[12], kFsCount);
    putLe32(&blob[16], kHsCount);
    putLe32(&blob[20], kSsCount);
    size_t at = kHeaderSize;
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
