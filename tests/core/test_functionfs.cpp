// The host sees the function only through these bytes; a wrong byte is a function that does not
// enumerate or an endpoint the daemon cannot stream on, so they are checked at their offsets.
#include <gtest/gtest.h>

#include "functionfs.h"

namespace {

uint32_t le32(const uint8_t *at)
{
    return uint32_t(at[0]) | uint32_t(at[1]) << 8 | uint32_t(at[2]) << 16 | uint32_t(at[3]) << 24;
}

using usbd::functionfs::descriptorsBlob;
using usbd::functionfs::stringsBlob;

TEST(FunctionFsBlobs, DescriptorsHeaderAndLayout)
{
    const auto blob = descriptorsBlob();
    ASSERT_EQ(blob.size(), 183u);
    EXPECT_EQ(le32(&blob[0]), 3u);   // v2 magic
    EXPECT_EQ(le32(&blob[4]), 183u); // length
    EXPECT_EQ(le32(&blob[8]), 7u);   // FS | HS | SS
    EXPECT_EQ(le32(&blob[12]), 5u);
    EXPECT_EQ(le32(&blob[16]), 5u);
    EXPECT_EQ(le32(&blob[20]), 9u);

    // Interfaces: vendor specific, four endpoints; only FS and HS name string 1.
    for (size_t at : {24u, 69u, 114u}) {
        SCOPED_TRACE(at);
        EXPECT_EQ(blob[at], 9);
        EXPECT_EQ(blob[at + 1], 4);
        EXPECT_EQ(blob[at + 4], 4);
        EXPECT_EQ(blob[at + 5], 0xFF);
    }
    EXPECT_EQ(blob[24 + 8], 1);
    EXPECT_EQ(blob[69 + 8], 1);
    EXPECT_EQ(blob[114 + 8], 0);

    struct Endpoint {
        size_t at;
        uint8_t address;
        uint16_t packet;
    };
    const Endpoint endpoints[] = {
        {33, 0x01, 64},    {42, 0x02, 64},    {51, 0x81, 64},    {60, 0x82, 64},
        {78, 0x01, 512},   {87, 0x02, 512},   {96, 0x81, 512},   {105, 0x82, 512},
        {123, 0x01, 1024}, {138, 0x02, 1024}, {153, 0x81, 1024}, {168, 0x82, 1024},
    };
    for (const Endpoint &ep : endpoints) {
        SCOPED_TRACE(ep.at);
        EXPECT_EQ(blob[ep.at], 9);
        EXPECT_EQ(blob[ep.at + 1], 5);
        EXPECT_EQ(blob[ep.at + 2], ep.address);
        EXPECT_EQ(blob[ep.at + 3], 2); // bulk
        EXPECT_EQ(blob[ep.at + 4] | blob[ep.at + 5] << 8, ep.packet);
        EXPECT_EQ(blob[ep.at + 6], 0);
    }

    // Companions follow each super-speed endpoint; only 0x81's asks for bursts.
    const std::pair<size_t, uint8_t> companions[] = {{132, 0}, {147, 0}, {162, 15}, {177, 0}};
    for (const auto &[at, burst] : companions) {
        SCOPED_TRACE(at);
        EXPECT_EQ(blob[at], 6);
        EXPECT_EQ(blob[at + 1], 0x30);
        EXPECT_EQ(blob[at + 2], burst);
        EXPECT_EQ(blob[at + 3], 0);
        EXPECT_EQ(blob[at + 4] | blob[at + 5], 0);
    }
}

TEST(FunctionFsBlobs, Strings)
{
    const auto &blob = stringsBlob();
    ASSERT_EQ(blob.size(), 33u);
    EXPECT_EQ(le32(&blob[0]), 2u);
    EXPECT_EQ(le32(&blob[4]), 33u);
    EXPECT_EQ(le32(&blob[8]), 1u);
    EXPECT_EQ(le32(&blob[12]), 1u);
    EXPECT_EQ(blob[16] | blob[17] << 8, 0x0409);
    EXPECT_STREQ(reinterpret_cast<const char *>(&blob[18]), "CTRL Interface");
    EXPECT_EQ(blob[32], 0);
}

} // namespace
