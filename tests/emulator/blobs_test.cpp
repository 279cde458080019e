// The emulator's blob checks must take exactly what the kernel takes: a blob the emulator
// accepts and a device refuses would hide a daemon bug until it runs on hardware.

#include "blobs.h"
#include "control.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <random>
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

Bytes interfaceDesc(uint8_t number, uint8_t cls, uint8_t iInterface, uint8_t numEndpoints = 4)
{
    return {9, 4, number, 0, numEndpoints, cls, 0, 0, iInterface};
}

Bytes endpointDesc(uint8_t address, uint16_t maxPacket, uint8_t length = 9)
{
    Bytes d = {length, 5, address, 2, uint8_t(maxPacket), uint8_t(maxPacket >> 8), 0, 0, 0};
    d.resize(length < 9 ? length : 9, 0);
    return d;
}

Bytes companionDesc(uint8_t burst) { return {6, 0x30, burst, 0, 0, 0}; }

Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

const uint8_t kAddresses[4] = {0x01, 0x02, 0x81, 0x82};

Bytes speedSet(uint16_t maxPacket, uint8_t iInterface, bool companions)
{
    Bytes set = interfaceDesc(0, 0xff, iInterface);
    for (uint8_t a : kAddresses) {
        const Bytes ep = endpointDesc(a, maxPacket);
        set.insert(set.end(), ep.begin(), ep.end());
        if (companions) {
            const Bytes c = companionDesc(a == 0x81 ? 15 : 0);
            set.insert(set.end(), c.begin(), c.end());
        }
    }
    return set;
}

// A v2 blob with the given flags, counts (one per flag bit present) and body.
Bytes descriptorsBlob(uint32_t flags, std::vector<uint32_t> counts, const Bytes &body)
{
    Bytes b;
    put32(b, kDescriptorsMagicV2);
    put32(b, 0);
    put32(b, flags);
    for (uint32_t c : counts)
        put32(b, c);
    b.insert(b.end(), body.begin(), body.end());
    set32(b, 4, uint32_t(b.size()));
    return b;
}

// The daemon's 183-byte blob.
Bytes daemonDescriptors()
{
    return descriptorsBlob(7, {5, 5, 9},
                           cat({speedSet(64, 1, false), speedSet(512, 1, false),
                                speedSet(1024, 0, true)}));
}

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

int parse(const Bytes &blob, FunctionLayout &layout)
{
    std::string why;
    // An exact-size copy, so that a read past the end is caught under AddressSanitizer.
    std::unique_ptr<uint8_t[]> copy(new uint8_t[blob.size() ? blob.size() : 1]);
    if (!blob.empty())
        memcpy(copy.get(), blob.data(), blob.size());
    const int r = parseDescriptors(copy.get(), blob.size(), layout, why);
    if (r < 0) {
        EXPECT_FALSE(why.empty());
    }
    return r;
}

int parse(const Bytes &blob)
{
    FunctionLayout layout;
    return parse(blob, layout);
}

int parseStr(const Bytes &blob, FunctionLayout &layout)
{
    std::string why;
    std::unique_ptr<uint8_t[]> copy(new uint8_t[blob.size() ? blob.size() : 1]);
    if (!blob.empty())
        memcpy(copy.get(), blob.data(), blob.size());
    return parseStrings(copy.get(), blob.size(), layout, why);
}

} // namespace

TEST(Blobs, DaemonBlobsDescribeOneVendorInterfaceWithFourBulkEndpoints)
{
    const Bytes blob = daemonDescriptors();
    ASSERT_EQ(blob.size(), 183u);
    FunctionLayout layout;
    ASSERT_EQ(parse(blob, layout), 0);
    ASSERT_EQ(layout.interfaces.size(), 1u);
    EXPECT_EQ(layout.interfaces[0].cls, 0xff);
    EXPECT_EQ(layout.interfaces[0].endpointCount, 4);
    // The super-speed set names no string, but the others do.
    EXPECT_EQ(layout.stringsNeeded, 1u);
    ASSERT_EQ(layout.endpoints.size(), 4u);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(layout.endpoints[i].address, kAddresses[i]);
        EXPECT_STREQ(layout.endpoints[i].typeName(), "bulk");
        EXPECT_EQ(layout.endpoints[i].maxPacket[0], 64);
        EXPECT_EQ(layout.endpoints[i].maxPacket[1], 512);
        EXPECT_EQ(layout.endpoints[i].maxPacket[2], 1024);
    }

    const Bytes strings = stringsBlob(1, {{0x0409, std::string("CTRL Interface", 15)}});
    ASSERT_EQ(strings.size(), 33u);
    ASSERT_EQ(parseStr(strings, layout), 0);
    ASSERT_EQ(layout.languages.size(), 1u);
    EXPECT_EQ(layout.languages[0].id, 0x0409);
    EXPECT_EQ(layout.languages[0].strings, std::vector<std::string>{"CTRL Interface"});
}

TEST(Blobs, DescriptorsAreCheckedAsTheKernelChecksThem)
{
    const Bytes fs = speedSet(64, 1, false);
    const Bytes hs = speedSet(512, 1, false);
    const Bytes ss = speedSet(1024, 0, true);
    struct Case {
        const char *what;
        Bytes blob;
        int expected;
    };
    Bytes badMagic = daemonDescriptors();
    set32(badMagic, 0, 2);
    Bytes longer = daemonDescriptors();
    set32(longer, 4, 184);
    Bytes eightByteEp = fs;
    eightByteEp[9] = 8;
    Bytes fiveByteCompanion = ss;
    fiveByteCompanion[18] = 5;
    Bytes otherAddress = hs;
    otherAddress[9 + 2] = 0x03;
    Bytes legacy;
    put32(legacy, kDescriptorsMagic);
    put32(legacy, 0);
    put32(legacy, 5);
    put32(legacy, 5);
    legacy.insert(legacy.end(), fs.begin(), fs.end());
    legacy.insert(legacy.end(), hs.begin(), hs.end());
    set32(legacy, 4, uint32_t(legacy.size()));
    Bytes thirtyEndpoints = interfaceDesc(0, 0xff, 0, 30);
    for (int i = 0; i < 30; ++i) {
        const Bytes ep = endpointDesc(uint8_t(0x80 | (i % 15 + 1)), 64);
        thirtyEndpoints.insert(thirtyEndpoints.end(), ep.begin(), ep.end());
    }
    Bytes thirtyOne = thirtyEndpoints;
    const Bytes extra = endpointDesc(0x05, 64);
    thirtyOne.insert(thirtyOne.end(), extra.begin(), extra.end());
    Bytes withEventFdTruncated;
    put32(withEventFdTruncated, kDescriptorsMagicV2);
    put32(withEventFdTruncated, 14);
    put32(withEventFdTruncated, kEventFd | kHasFsDesc);
    withEventFdTruncated.push_back(0);
    withEventFdTruncated.push_back(0);

    const Case cases[] = {
        {"the daemon's blob", daemonDescriptors(), 0},
        {"legacy layout", legacy, 0},
        {"7-byte endpoints", descriptorsBlob(1, {3}, cat({interfaceDesc(0, 0xff, 0, 2), endpointDesc(0x01, 64, 7), endpointDesc(0x81, 64, 7)})), 0},
        {"full speed only", descriptorsBlob(1, {5}, fs), 0},
        {"zero-count sets are skipped", descriptorsBlob(7, {5, 0, 9}, cat({fs, ss})), 0},
        {"30 endpoints", descriptorsBlob(1, {31}, thirtyEndpoints), 0},
        {"HID descriptor in a HID interface", descriptorsBlob(1, {2}, cat({interfaceDesc(0, 3, 0, 0), Bytes{9, 0x21, 0x11, 1, 0, 1, 0x22, 20, 0}})), 0},
        {"bad magic", badMagic, -EINVAL},
        {"length field larger than the write", longer, -EINVAL},
        {"unknown flag", descriptorsBlob(7 | 0x100, {5, 5, 9}, cat({fs, hs, ss})), -ENOSYS},
        {"eventfd field truncated", withEventFdTruncated, -EINVAL},
        {"8-byte endpoint", descriptorsBlob(1, {5}, eightByteEp), -EINVAL},
        {"5-byte companion", descriptorsBlob(4, {9}, fiveByteCompanion), -EINVAL},
        {"endpoint number 0", descriptorsBlob(1, {2}, cat({interfaceDesc(0, 0xff, 0, 1), endpointDesc(0x80, 64)})), -EINVAL},
        {"high speed uses other addresses", descriptorsBlob(3, {5, 5}, cat({fs, otherAddress})), -EINVAL},
        {"high speed has fewer endpoints", descriptorsBlob(3, {5, 4}, cat({fs, Bytes(hs.begin(), hs.end() - 9)})), -EINVAL},
        {"more descriptors counted than present", descriptorsBlob(1, {6}, fs), -EINVAL},
        {"bytes after the descriptors", descriptorsBlob(1, {5}, cat({fs, Bytes{0}})), -EINVAL},
        {"no descriptor at all", descriptorsBlob(1, {0}, Bytes()), -EINVAL},
        {"device descriptor", descriptorsBlob(1, {1}, cat({Bytes{18, 1}, Bytes(16, 0)})), -EINVAL},
        {"HID descriptor in a vendor interface", descriptorsBlob(1, {2}, cat({interfaceDesc(0, 0xff, 0, 0), Bytes{9, 0x21, 0x11, 1, 0, 1, 0x22, 20, 0}})), -EINVAL},
        {"descriptor claims more than is left", descriptorsBlob(1, {1}, Bytes{9, 4, 0}), -EINVAL},
        {"31 endpoints", descriptorsBlob(1, {32}, thirtyOne), -EINVAL},
        {"shorter than a header", Bytes(legacy.begin(), legacy.begin() + 15), -EINVAL},
    };
    for (const Case &c : cases)
        EXPECT_EQ(parse(c.blob), c.expected) << c.what;
}

TEST(Blobs, StringsAreCheckedAsTheKernelChecksThem)
{
    FunctionLayout layout;
    ASSERT_EQ(parse(daemonDescriptors(), layout), 0);
    const std::string ctrl("CTRL Interface", 15);
    struct Case {
        const char *what;
        Bytes blob;
        int expected;
    };
    Bytes wrongLength = stringsBlob(1, {{0x0409, ctrl}});
    set32(wrongLength, 4, 34);
    Bytes badMagic = stringsBlob(1, {{0x0409, ctrl}});
    set32(badMagic, 0, kDescriptorsMagicV2);
    Bytes truncatedLanguage = cat({stringsBlob(1, {}), Bytes{0x09, 0x04}});
    set32(truncatedLanguage, 12, 1);
    set32(truncatedLanguage, 4, uint32_t(truncatedLanguage.size()));
    const Case cases[] = {
        {"one string", stringsBlob(1, {{0x0409, ctrl}}), 0},
        {"two languages", stringsBlob(1, {{0x0409, ctrl}, {0x0407, std::string("Steuerung", 10)}}), 0},
        {"more strings than needed", stringsBlob(2, {{0x0409, ctrl + std::string("x", 2)}}), 0},
        {"no terminator", stringsBlob(1, {{0x0409, "CTRL Interface"}}), -EINVAL},
        {"wrong length field", wrongLength, -EINVAL},
        {"bad magic", badMagic, -EINVAL},
        {"strings but no language", stringsBlob(1, {}), -EINVAL},
        {"fewer strings than referenced", stringsBlob(0, {}), -EINVAL},
        {"bytes after the last string", stringsBlob(1, {{0x0409, ctrl + std::string("!")}}), -EINVAL},
        {"language truncated", truncatedLanguage, -EINVAL},
    };
    for (const Case &c : cases)
        EXPECT_EQ(parseStr(c.blob, layout), c.expected) << c.what;

    // Descriptors that name no string: the kernel does not look past the header.
    FunctionLayout noStrings;
    ASSERT_EQ(parse(descriptorsBlob(4, {9}, speedSet(1024, 0, true)), noStrings), 0);
    EXPECT_EQ(parseStr(cat({stringsBlob(0, {}), Bytes{1, 2, 3}}), noStrings), -EINVAL); // length
    Bytes garbage = cat({stringsBlob(1, {}), Bytes{0xff}});
    set32(garbage, 12, 1);
    set32(garbage, 4, uint32_t(garbage.size()));
    EXPECT_EQ(parseStr(garbage, noStrings), 0);
}

TEST(Blobs, MutatedBlobsNeverBreakTheParser)
{
    // Whatever a client writes to ep0 reaches these parsers; any blob they accept must
    // describe a function the emulator can serve.
    std::mt19937 rng(1234);
    const Bytes base = daemonDescriptors();
    const Bytes strings = stringsBlob(1, {{0x0409, std::string("CTRL Interface", 15)}});
    for (int round = 0; round < 20000; ++round) {
        Bytes blob = round % 2 ? base : strings;
        const int edits = 1 + int(rng() % 4);
        for (int e = 0; e < edits; ++e) {
            switch (rng() % 3) {
            case 0:
                if (!blob.empty())
                    blob[rng() % blob.size()] = uint8_t(rng());
                break;
            case 1:
                blob.resize(rng() % (blob.size() + 1));
                break;
            default:
                blob.insert(blob.begin() + long(rng() % (blob.size() + 1)), uint8_t(rng()));
                break;
            }
            if (blob.size() >= 8 && rng() % 2)
                set32(blob, 4, uint32_t(blob.size()));
        }
        FunctionLayout layout;
        if (round % 2) {
            if (parse(blob, layout) == 0) {
                EXPECT_LE(layout.endpoints.size(), 30u);
                for (const Endpoint &ep : layout.endpoints)
                    EXPECT_NE(ep.address & 0x0f, 0);
            }
        } else {
            ASSERT_EQ(parse(base, layout), 0);
            parseStr(blob, layout);
        }
    }
}

TEST(Control, MessagesCarryArgumentsPayloadAndDescriptorAndRefuseMalformedOnes)
{
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
    usbd::UniqueFd a(pair[0]), b(pair[1]);

    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    usbd::UniqueFd readEnd(pipeFds[0]), writeEnd(pipeFds[1]);
    const std::string payload("\0binary\xff", 8);
    ASSERT_TRUE(sendMessage(a.get(), {"ep1-push", "", "last"}, payload.data(), payload.size(),
                            writeEnd.get()));
    Message m;
    ASSERT_EQ(receiveMessage(b.get(), m), 1);
    EXPECT_EQ(m.args, (std::vector<std::string>{"ep1-push", "", "last"}));
    EXPECT_EQ(std::string(m.payload.begin(), m.payload.end()), payload);
    ASSERT_TRUE(m.fd.valid());
    ASSERT_EQ(write(m.fd.get(), "x", 1), 1); // the same pipe, passed along
    char c = 0;
    ASSERT_EQ(read(readEnd.get(), &c, 1), 1);
    EXPECT_EQ(c, 'x');

    // Counts and lengths that point past the packet.
    const uint8_t tooManyArgs[] = {0xff, 0xff, 0, 0};
    const uint8_t argPastEnd[] = {1, 0, 0, 0, 100, 0, 0, 0, 'a'};
    const uint8_t truncatedCount[] = {1, 0};
    for (const auto &bad : {std::string(reinterpret_cast<const char *>(tooManyArgs), sizeof tooManyArgs),
                            std::string(reinterpret_cast<const char *>(argPastEnd), sizeof argPastEnd),
                            std::string(reinterpret_cast<const char *>(truncatedCount), sizeof truncatedCount)}) {
        ASSERT_EQ(send(a.get(), bad.data(), bad.size(), 0), ssize_t(bad.size()));
        EXPECT_EQ(receiveMessage(b.get(), m), -EBADMSG);
    }
    // Larger than the channel's bound: refused by the sender, truncated-and-refused on receipt.
    std::string huge(kMaxControlMessage, 'x');
    EXPECT_FALSE(sendMessage(a.get(), {"x"}, huge.data(), huge.size()));
    huge.push_back('x');
    int sndbuf = int(2 * kMaxControlMessage + 4096);
    setsockopt(a.get(), SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf);
    if (send(a.get(), huge.data(), huge.size(), 0) == ssize_t(huge.size())) {
        EXPECT_EQ(receiveMessage(b.get(), m), -EMSGSIZE);
    }
    a.reset();
    EXPECT_EQ(receiveMessage(b.get(), m), 0);
}

TEST(Control, NamesAreCheckedBeforeTheyBecomeSocketAddresses)
{
    EXPECT_TRUE(validEmulatorName("usbd-emu"));
    EXPECT_TRUE(validEmulatorName("t123-4.x_y"));
    EXPECT_FALSE(validEmulatorName(""));
    EXPECT_FALSE(validEmulatorName("a/b"));
    EXPECT_FALSE(validEmulatorName(std::string(65, 'a')));
    sockaddr_un one, two;
    EXPECT_NE(controlAddress("a", one), controlAddress("ab", two));
    EXPECT_EQ(one.sun_path[0], '\0');
}
