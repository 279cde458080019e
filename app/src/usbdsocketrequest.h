#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// Decoding of one request read from "/tmp/usbd-socket". Pure: no I/O and no Qt, so that the
// server, the unit tests and the fuzzer all drive the same code.
//
// Layout (all integers little-endian):
//   header   u32 kind (1 send, 2 interrupt, anything else ignored), u32 requestId
//   entries  28 bytes each from offset 8, until the first entry whose type word is 0:
//            u32 type, u32 size, u32 offset, u32 elementAlignment, u32 elementPadding, u64 handle
//   data     memory entries name their bytes by an offset counted from the start of the request
namespace usbd {

// Every request must arrive whole in one read of at most this many bytes.
constexpr std::size_t kSocketMaxRequestSize = 4096;
constexpr std::size_t kSocketHeaderSize = 8;
constexpr std::size_t kSocketEntrySize = 28;
// The end entry is recognised by its type word alone; the rest of it need not be present.
constexpr std::size_t kSocketEndEntrySize = 4;
constexpr std::size_t kSocketResponseSize = 8;

constexpr std::uint32_t kSocketKindSend = 1;
constexpr std::uint32_t kSocketKindInterrupt = 2;

constexpr std::uint32_t kSocketEntryEnd = 0;
constexpr std::uint32_t kSocketEntryMemory = 1;
constexpr std::uint32_t kSocketEntryHandle = 2;

// One memory or handle entry, in the order it appeared. Entries of other types are skipped by
// the parser and never appear here.
struct SocketRequestEntry {
    std::uint32_t type = 0;
    std::uint32_t size = 0;
    // Memory entry: where its data starts in the request; the parser has checked that all
    // size bytes lie within the bytes received. Handle entry: offset in the shared buffer.
    std::uint32_t offset = 0;
    std::uint32_t elementAlignment = 0;
    std::uint32_t elementPadding = 0;
    std::uint64_t handle = 0; // handle entries only
};

enum class SocketRequestKind {
    Send,
    Interrupt,
    Ignored,   // a kind the server does not know
    TooShort,  // fewer bytes than the header
    Malformed, // a send request whose entries or memory data run past the bytes received
};

struct SocketRequest {
    SocketRequestKind kind = SocketRequestKind::TooShort;
    std::uint32_t requestId = 0;
    std::vector<SocketRequestEntry> entries; // filled for Send only
};

// Decodes the length bytes at data (one read) into *request, and returns request->kind. Nothing
// outside [data, data + length) is read. A length above kSocketMaxRequestSize is Malformed,
// since no single read of the server can return it. request->entries is cleared first and its
// capacity reused.
SocketRequestKind parseSocketRequest(const unsigned char *data, std::size_t length,
                                     SocketRequest *request);

} // namespace usbd
