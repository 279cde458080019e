#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include <usbd/protocol.h>

// Decoding of one request read from the request socket. Pure: no I/O and no Qt, so that the
// server, the unit tests and the fuzzer all drive the same code. The layout is in
// <usbd/protocol.h>, shared with the clients.
namespace usbd {

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
