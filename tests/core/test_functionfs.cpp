// The descriptor blob walked as the kernel walks it: every count in the header must match the
// descriptors that follow, or the kernel refuses the function. The host's view of the function
// (interface, endpoints, packet sizes, string) is checked on the emulator and the real kernel;
// what neither shows is checked here.
#include <gtest/gtest.h>

#include <linux/usb/ch9.h>
#include <linux/usb/functionfs.h>

#include <vector>

#include "functionfs.h"

namespace {

uint32_t le32(const uint8_t *at)
{
    return uint32_t(at[0]) | uint32_t(at[1]) << 8 | uint32_t(at[2]) << 16 | uint32_t(at[3]) << 24;
}

struct Descriptor {
    uint8_t type;
    const uint8_t *bytes;
};

TEST(FunctionFsBlobs, CountsMatchAndOnlyTheStreamingEndpointBursts)
{
    const auto blob = usbd::functionfs::descriptorsBlob();
    ASSERT_EQ(le32(&blob[0]), uint32_t(FUNCTIONFS_DESCRIPTORS_MAGIC_V2));
    ASSERT_EQ(le32(&blob[4]), blob.size());
    ASSERT_EQ(le32(&blob[8]),
              uint32_t(FUNCTIONFS_HAS_FS_DESC | FUNCTIONFS_HAS_HS_DESC | FUNCTIONFS_HAS_SS_DESC));

    size_t at = 24;
    std::vector<std::vector<Descriptor>> sets;
    for (int set = 0; set < 3; ++set) {
        const uint32_t count = le32(&blob[12 + 4 * set]);
        sets.emplace_back();
        for (uint32_t i = 0; i < count; ++i) {
            ASSERT_LT(at + 1, blob.size());
            ASSERT_GE(blob[at], 2);
            sets.back().push_back({blob[at + 1], &blob[at]});
            at += blob[at];
        }
    }
    EXPECT_EQ(at, blob.size()); // nothing left over

    // Full and high speed name the interface string; the super-speed set names none.
    for (int set = 0; set < 3; ++set) {
        ASSERT_EQ(sets[set].front().type, USB_DT_INTERFACE);
        EXPECT_EQ(sets[set].front().bytes[8], set < 2 ? 1 : 0);
    }
    // At super speed every endpoint has a companion, and only bulk IN 0x81 asks for bursts.
    const std::vector<Descriptor> &super = sets[2];
    for (size_t i = 1; i < super.size(); i += 2) {
        ASSERT_EQ(super[i].type, USB_DT_ENDPOINT);
        ASSERT_EQ(super[i + 1].type, USB_DT_SS_ENDPOINT_COMP);
        EXPECT_EQ(super[i + 1].bytes[2], super[i].bytes[2] == 0x81 ? 15 : 0);
    }
    EXPECT_STREQ(reinterpret_cast<const char *>(&usbd::functionfs::stringsBlob()[18]),
                 "CTRL Interface");
}

} // namespace
