// The emulator's blob checks must take exactly what the kernel takes: a blob the emulator
// accepts and a device refuses would hide a daemon bug until it runs on hardware. The cases are
// variations of the daemon's own blob.

#include "blobs.h"
#include "functionfs.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

using namespace usbdemu;

namespace {

using Bytes = std::vector<uint8_t>;

void put32(Bytes &b, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        b.push_back(uint8_t(v >> (8 * i)));
}

void set32(Bytes &b, size_t at, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        b[at + size_t(i)] = uint8_t(v >> (8 * i));
}

Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

Bytes interfaceDesc(uint8_t cls, uint8_t iInterface, uint8_t numEndpoints)
{
    return {9, 4, 0, 0, numEndpoints, cls, 0, 0, iInterface};
}

Bytes endpointDesc(uint8_t address, uint16_t maxPacket, uint8_t length = 9)
{
    Bytes d = {length, 5, address, 2, uint8_t(maxPacket), uint8_t(maxPacket >> 8), 0, 0, 0};
    d.resize(length < 9 ? length : 9);
    return d;
}

// A blob with the given magic, flags, counts (one per flag bit present) and body; the length
// field is set to the blob's size.
Bytes descriptorsBlob(uint32_t flags, std::vector<uint32_t> counts, const Bytes &body,
                      uint32_t magic = kDescriptorsMagicV2)
{
    Bytes b;
    put32(b, magic);
    put32(b, 0);
    if (magic == kDescriptorsMagicV2)
        put32(b, flags);
    for (uint32_t c : counts)
        put32(b, c);
    b = cat({b, body});
    set32(b, 4, uint32_t(b.size()));
    return b;
}

// The daemon's blob (v2 header, flags 7) and its three speed sets: an interface and four bulk
// endpoints, with a companion each at super speed.
const auto kDaemonBlob = usbd::functionfs::descriptorsBlob();
const Bytes kDaemonDescriptors(kDaemonBlob.begin(), kDaemonBlob.end());
const Bytes kFs(kDaemonBlob.begin() + 24, kDaemonBlob.begin() + 69);
const Bytes kHs(kDaemonBlob.begin() + 69, kDaemonBlob.begin() + 114);
const Bytes kSs(kDaemonBlob.begin() + 114, kDaemonBlob.end());
const std::string kCtrl("CTRL Interface", 15);

Bytes stringsBlob(uint32_t strCount, const std::vector<std::pair<uint16_t, std::string>> &langs)
{
    Bytes b;
    put32(b, kStringsMagic);
    put32(b, 0);
    put32(b, strCount);
    put32(b, uint32_t(langs.size()));
    for (const auto &lang : langs) {
        b.push_back(uint8_t(lang.first));
        b.push_back(uint8_t(lang.first >> 8));
        b.insert(b.end(), lang.second.begin(), lang.second.end());
    }
    set32(b, 4, uint32_t(b.size()));
    return b;
}

Bytes withField(Bytes blob, size_t at, uint32_t value)
{
    set32(blob, at, value);
    return blob;
}

Bytes withByte(Bytes blob, size_t at, uint8_t value)
{
    blob[at] = value;
    return blob;
}

// Parses from an exact-size copy, so that a read past the end shows under AddressSanitizer.
int parse(const Bytes &blob, FunctionLayout &layout, bool strings = false)
{
    std::string why;
    std::unique_ptr<uint8_t[]> copy(new uint8_t[blob.size() + !blob.size()]);
    if (!blob.empty())
        std::memcpy(copy.get(), blob.data(), blob.size());
    const int r = strings ? parseStrings(copy.get(), blob.size(), layout, why)
                          : parseDescriptors(copy.get(), blob.size(), layout, why);
    if (r < 0) {
        EXPECT_FALSE(why.empty()); // the emulator logs why it refused a blob
    }
    return r;
}

int parse(const Bytes &blob)
{
    FunctionLayout layout;
    return parse(blob, layout);
}

struct Case {
    const char *what;
    Bytes blob;
    int expected;
};

} // namespace

TEST(Blobs, DescriptorsAreCheckedAsTheKernelChecksThem)
{
    Bytes thirty = interfaceDesc(0xff, 0, 30);
    for (int i = 0; i < 30; ++i)
        thirty = cat({thirty, endpointDesc(uint8_t(0x80 | (i % 15 + 1)), 64)});
    const Bytes hid = {9, 0x21, 0x11, 1, 0, 1, 0x22, 20, 0};

    const Case cases[] = {
        {"the daemon's blob", kDaemonDescriptors, 0},
        {"legacy layout", descriptorsBlob(0, {5, 5}, cat({kFs, kHs}), kDescriptorsMagic), 0},
        {"7-byte endpoints",
         descriptorsBlob(1, {3},
                         cat({interfaceDesc(0xff, 0, 2), endpointDesc(0x01, 64, 7),
                              endpointDesc(0x81, 64, 7)})),
         0},
        {"zero-count sets are skipped", descriptorsBlob(7, {5, 0, 9}, cat({kFs, kSs})), 0},
        {"30 endpoints", descriptorsBlob(1, {31}, thirty), 0},
        {"HID descriptor in a HID interface",
         descriptorsBlob(1, {2}, cat({interfaceDesc(3, 0, 0), hid})), 0},
        {"bad magic", withField(kDaemonDescriptors, 0, 2), -EINVAL},
        {"length field larger than the write", withField(kDaemonDescriptors, 4, 184), -EINVAL},
        {"length field smaller than the write", withField(kDaemonDescriptors, 4, 182), -EINVAL},
        {"unknown flag", descriptorsBlob(7 | 0x100, {5, 5, 9}, cat({kFs, kHs, kSs})), -ENOSYS},
        {"7-byte interface", descriptorsBlob(1, {5}, withByte(kFs, 0, 7)), -EINVAL},
        {"8-byte endpoint", descriptorsBlob(1, {5}, withByte(kFs, 9, 8)), -EINVAL},
        {"5-byte companion", descriptorsBlob(4, {9}, withByte(kSs, 18, 5)), -EINVAL},
        {"endpoint number 0",
         descriptorsBlob(1, {2}, cat({interfaceDesc(0xff, 0, 1), endpointDesc(0x80, 64)})),
         -EINVAL},
        {"high speed uses other addresses",
         descriptorsBlob(3, {5, 5}, cat({kFs, withByte(kHs, 11, 0x03)})), -EINVAL},
        {"high speed has fewer endpoints",
         descriptorsBlob(3, {5, 4}, cat({kFs, Bytes(kHs.begin(), kHs.end() - 9)})), -EINVAL},
        {"more descriptors counted than present", descriptorsBlob(1, {6}, kFs), -EINVAL},
        {"bytes after the descriptors", descriptorsBlob(1, {5}, cat({kFs, Bytes{0}})), -EINVAL},
        {"no descriptor at all", descriptorsBlob(1, {0}, Bytes()), -EINVAL},
        {"device descriptor", descriptorsBlob(1, {1}, cat({Bytes{18, 1}, Bytes(16, 0)})), -EINVAL},
        {"HID descriptor in a vendor interface",
         descriptorsBlob(1, {2}, cat({interfaceDesc(0xff, 0, 0), hid})), -EINVAL},
        {"descriptor claims more than is left", descriptorsBlob(1, {1}, Bytes{9, 4, 0}), -EINVAL},
        {"31 endpoints", descriptorsBlob(1, {32}, cat({thirty, endpointDesc(0x05, 64)})), -EINVAL},
        {"shorter than a header",
         Bytes(kDaemonDescriptors.begin(), kDaemonDescriptors.begin() + 15), -EINVAL},
    };
    for (const Case &c : cases)
        EXPECT_EQ(parse(c.blob), c.expected) << c.what;
}

TEST(Blobs, StringsAreCheckedAsTheKernelChecksThem)
{
    FunctionLayout layout;
    ASSERT_EQ(parse(kDaemonDescriptors, layout), 0);
    const Bytes daemonStrings(usbd::functionfs::stringsBlob().begin(),
                              usbd::functionfs::stringsBlob().end());
    Bytes truncatedLanguage = withField(cat({stringsBlob(1, {}), Bytes{0x09, 0x04}}), 12, 1);
    set32(truncatedLanguage, 4, uint32_t(truncatedLanguage.size()));
    const Case cases[] = {
        {"the daemon's blob", daemonStrings, 0},
        {"two languages", stringsBlob(1, {{0x0409, kCtrl}, {0x0407, std::string("Steuerung", 10)}}),
         0},
        {"more strings than needed", stringsBlob(2, {{0x0409, kCtrl + std::string("x", 2)}}), 0},
        {"no terminator", stringsBlob(1, {{0x0409, "CTRL Interface"}}), -EINVAL},
        {"wrong length field", withField(daemonStrings, 4, 34), -EINVAL},
        {"bad magic", withField(daemonStrings, 0, kDescriptorsMagicV2), -EINVAL},
        {"strings but no language", stringsBlob(1, {}), -EINVAL},
        {"fewer strings than referenced", stringsBlob(0, {}), -EINVAL},
        {"bytes after the last string", stringsBlob(1, {{0x0409, kCtrl + "!"}}), -EINVAL},
        {"language truncated", truncatedLanguage, -EINVAL},
    };
    for (const Case &c : cases)
        EXPECT_EQ(parse(c.blob, layout, true), c.expected) << c.what;
    ASSERT_EQ(parse(daemonStrings, layout, true), 0);
    EXPECT_EQ(layout.languages.at(0).strings, std::vector<std::string>{"CTRL Interface"});

    // Descriptors that name no string: the kernel checks the length but not past the header.
    FunctionLayout noStrings;
    ASSERT_EQ(parse(descriptorsBlob(4, {9}, kSs), noStrings), 0);
    EXPECT_EQ(parse(cat({stringsBlob(0, {}), Bytes{1, 2, 3}}), noStrings, true), -EINVAL);
    Bytes garbage = withField(cat({stringsBlob(1, {}), Bytes{0xff}}), 12, 1);
    set32(garbage, 4, uint32_t(garbage.size()));
    EXPECT_EQ(parse(garbage, noStrings, true), 0);
}
