// The request parser of the socket server, fed with bytes from the client library's encoder
// and with hand-made bytes where the encoder would refuse to produce them.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include <usbd/client.h>
#include <usbd/little_endian.h>

#include "usbdsocketrequest.h"

using usbd::SocketRequest;
using usbd::SocketRequestKind;
using Bytes = std::vector<unsigned char>;

namespace {

SocketRequestKind parse(const Bytes &bytes, SocketRequest *request)
{
    // A fresh copy holds exactly the bytes, so that a read past them shows under
    // AddressSanitizer.
    const Bytes copy(bytes.begin(), bytes.end());
    return usbd::parseSocketRequest(copy.data(), copy.size(), request);
}

void putU32(Bytes *bytes, std::size_t at, std::uint32_t value)
{
    usbd::storeLe32(bytes->data() + at, value);
}

// A send request with one memory entry whose size and offset fields are set by hand.
Bytes memoryRequest(std::uint32_t size, std::uint32_t offset, std::size_t totalLength)
{
    Bytes bytes(totalLength, 0);
    putU32(&bytes, 0, 1);
    putU32(&bytes, 8, 1);
    putU32(&bytes, 12, size);
    putU32(&bytes, 16, offset);
    return bytes;
}

} // namespace

TEST(SocketRequest, DocumentedExampleIsFortyFiveBytesWithOneMemoryEntry)
{
    const Bytes expected = {
        0x01, 0,   0,   0,   0x2A, 0, 0, 0,                // send, id 42
        0x01, 0,   0,   0,   0x05, 0, 0, 0, 0x28, 0, 0, 0, // memory, 5 bytes at 40
        0,    0,   0,   0,   0,    0, 0, 0, 0,    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, // end entry
        'h',  'e', 'l', 'l', 'o'};
    usbd::client::SendRequest send(42);
    send.addMemory("hello", 5);
    EXPECT_EQ(send.encode(), expected);

    SocketRequest request;
    ASSERT_EQ(parse(expected, &request), SocketRequestKind::Send);
    EXPECT_EQ(request.requestId, 42u);
    ASSERT_EQ(request.entries.size(), 1u);
    EXPECT_EQ(request.entries[0].type, usbd::kSocketEntryMemory);
    EXPECT_EQ(request.entries[0].size, 5u);
    EXPECT_EQ(request.entries[0].offset, 40u);
}

TEST(SocketRequest, HandleEntryAndInterruptBytesAreTheSameOnEveryArchitecture)
{
    // Fixed bytes, so that a 32-bit build (other alignment of the 64-bit handle) cannot drift.
    const Bytes expected = {
        0x01, 0,    0,    0,    0x04, 0x03, 0x02, 0x01,                // send, id 0x01020304
        0x02, 0,    0,    0,    0,    0,    0x01, 0,                   // handle, 65536 bytes
        0,    0x10, 0,    0,    0x20, 0,    0,    0,    0x07, 0, 0, 0, // at 4096, align 32, pad 7
        0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11,                // handle, low word first
        0,    0,    0,    0};                                          // end entry
    usbd::client::SendRequest send(0x01020304);
    send.addHandle(0x1122334455667788ull, 4096, 65536, 32, 7);
    EXPECT_EQ(send.encode(), expected);
    EXPECT_EQ(usbd::client::encodeInterrupt(), (Bytes{0x02, 0, 0, 0, 0, 0, 0, 0}));

    SocketRequest request;
    ASSERT_EQ(parse(expected, &request), SocketRequestKind::Send);
    ASSERT_EQ(request.entries.size(), 1u);
    EXPECT_EQ(request.entries[0].handle, 0x1122334455667788ull);
    EXPECT_EQ(request.entries[0].offset, 4096u);
}

TEST(SocketRequest, EntriesKeepTheirOrderAndUnknownTypesAreSkipped)
{
    const char first[] = "abc";
    const char second[] = "defgh";
    usbd::client::SendRequest send(0xFFFFFFFE);
    send.addMemory(first, 3, 16, 13)
        .addHandle(0x1122334455667788ull, 4096, 65536, 32, 7)
        .addOther(3)
        .addOther(0xFFFFFFFF)
        .addMemory(second, 5);
    const Bytes bytes = send.encode();

    SocketRequest request;
    ASSERT_EQ(parse(bytes, &request), SocketRequestKind::Send);
    EXPECT_EQ(request.requestId, 0xFFFFFFFEu);
    ASSERT_EQ(request.entries.size(), 3u);

    const auto &a = request.entries[0];
    EXPECT_EQ(a.type, usbd::kSocketEntryMemory);
    EXPECT_EQ(a.elementAlignment, 16u);
    EXPECT_EQ(a.elementPadding, 13u);
    ASSERT_EQ(a.size, 3u);
    EXPECT_EQ(std::memcmp(bytes.data() + a.offset, first, 3), 0);

    const auto &h = request.entries[1];
    EXPECT_EQ(h.type, usbd::kSocketEntryHandle);
    EXPECT_EQ(h.handle, 0x1122334455667788ull); // low word first on the wire
    EXPECT_EQ(h.offset, 4096u);
    EXPECT_EQ(h.size, 65536u);
    EXPECT_EQ(h.elementAlignment, 32u);
    EXPECT_EQ(h.elementPadding, 7u);

    const auto &b = request.entries[2];
    EXPECT_EQ(b.type, usbd::kSocketEntryMemory);
    ASSERT_EQ(b.size, 5u);
    EXPECT_EQ(std::memcmp(bytes.data() + b.offset, second, 5), 0);
}

TEST(SocketRequest, KindsAndShortReads)
{
    SocketRequest request;
    // Only the end entry's type word is needed: 12 bytes make an empty send request.
    EXPECT_EQ(parse(usbd::client::SendRequest(9).encode(), &request), SocketRequestKind::Send);
    EXPECT_TRUE(request.entries.empty());
    EXPECT_EQ(request.requestId, 9u);

    EXPECT_EQ(parse(usbd::client::encodeInterrupt(), &request), SocketRequestKind::Interrupt);
    Bytes unknown = usbd::client::SendRequest(1).encode();
    for (std::uint32_t kind : {0u, 3u, 0x01000000u}) {
        putU32(&unknown, 0, kind);
        EXPECT_EQ(parse(unknown, &request), SocketRequestKind::Ignored) << kind;
    }
    for (std::size_t length = 0; length < 8; ++length)
        EXPECT_EQ(parse(Bytes(length, 1), &request), SocketRequestKind::TooShort) << length;
}

TEST(SocketRequest, EntryWalkStaysWithinTheRead)
{
    SocketRequest request;
    // A send header alone, and an end entry cut short, hold no end entry.
    Bytes bytes = usbd::client::SendRequest(1).encode();
    for (std::size_t length : {8, 11})
        EXPECT_EQ(parse(Bytes(bytes.begin(), bytes.begin() + length), &request),
                  SocketRequestKind::Malformed);

    // A handle entry cut off by the end of the read, with no end entry after it.
    usbd::client::SendRequest handles(2);
    handles.addHandle(1, 0, 1);
    bytes = handles.encode();
    bytes.resize(bytes.size() - 4);
    EXPECT_EQ(parse(bytes, &request), SocketRequestKind::Malformed);
    bytes.resize(bytes.size() - 1);
    EXPECT_EQ(parse(bytes, &request), SocketRequestKind::Malformed);

    // 145 entries are the most that fit in one read (built by hand: the encoder stops at the
    // 32 segments the USB path can send); a 146th does not fit, and a read larger than the
    // server's buffer is refused even when well formed.
    bytes.assign(4072, 0);
    putU32(&bytes, 0, 1);
    putU32(&bytes, 4, 3);
    for (std::uint32_t i = 0; i < 145; ++i) {
        putU32(&bytes, 8 + 28 * i, 2);
        putU32(&bytes, 8 + 28 * i + 4, 1);
        putU32(&bytes, 8 + 28 * i + 24, i); // the handle's high word
    }
    ASSERT_EQ(parse(bytes, &request), SocketRequestKind::Send);
    ASSERT_EQ(request.entries.size(), 145u);
    EXPECT_EQ(request.entries[144].handle, std::uint64_t(144) << 32);
    usbd::client::SendRequest tooMany(3);
    for (int i = 0; i < 146; ++i)
        tooMany.addOther(3);
    EXPECT_TRUE(tooMany.encode().empty());
    bytes.resize(4097, 0);
    EXPECT_EQ(parse(bytes, &request), SocketRequestKind::Malformed);
    EXPECT_TRUE(request.entries.empty()); // nothing left over from the request before
}

TEST(SocketRequest, MemoryDataMustLieWithinTheRead)
{
    SocketRequest request;
    // Data ending on the last byte of the read, and an empty entry pointing at its very end.
    EXPECT_EQ(parse(memoryRequest(4, 36, 40), &request), SocketRequestKind::Send);
    EXPECT_EQ(parse(memoryRequest(0, 40, 40), &request), SocketRequestKind::Send);
    // Data may overlap the header and entries: they are bytes of the read like any other.
    EXPECT_EQ(parse(memoryRequest(40, 0, 40), &request), SocketRequestKind::Send);

    EXPECT_EQ(parse(memoryRequest(5, 36, 40), &request), SocketRequestKind::Malformed);
    EXPECT_EQ(parse(memoryRequest(0, 41, 40), &request), SocketRequestKind::Malformed);
    EXPECT_EQ(parse(memoryRequest(4096, 0, 40), &request), SocketRequestKind::Malformed);
    // offset + size wraps to 16 in 32-bit arithmetic.
    EXPECT_EQ(parse(memoryRequest(0x20, 0xFFFFFFF0u, 40), &request), SocketRequestKind::Malformed);
    EXPECT_EQ(parse(memoryRequest(0xFFFFFFFFu, 1, 40), &request), SocketRequestKind::Malformed);
    EXPECT_TRUE(request.entries.empty());

    // Memory data may fill a read to its last byte; the encoder refuses anything more.
    usbd::client::SendRequest full(4);
    const std::vector<char> data(4096, 'x');
    full.addMemory(data.data(), 4096 - 12 - 28);
    EXPECT_EQ(full.encodedSize(), 4096u);
    const Bytes bytes = full.encode();
    ASSERT_EQ(parse(bytes, &request), SocketRequestKind::Send);
    EXPECT_EQ(request.entries[0].offset + request.entries[0].size, 4096u);
    EXPECT_TRUE(full.addOther(3).encode().empty());
}
