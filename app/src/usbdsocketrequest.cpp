#include "usbdsocketrequest.h"

#include <endian.h>

#include <cstring>

namespace usbd {
namespace {

std::uint32_t readU32(const unsigned char *p)
{
    std::uint32_t value;
    std::memcpy(&value, p, sizeof value);
    return le32toh(value);
}

std::uint64_t readU64(const unsigned char *p)
{
    std::uint64_t value;
    std::memcpy(&value, p, sizeof value);
    return le64toh(value);
}

} // namespace

SocketRequestKind parseSocketRequest(const unsigned char *data, std::size_t length,
                                     SocketRequest *request)
{
    request->entries.clear();
    request->requestId = 0;

    if (length < kSocketHeaderSize)
        return request->kind = SocketRequestKind::TooShort;
    if (length > kSocketMaxRequestSize)
        return request->kind = SocketRequestKind::Malformed;

    const std::uint32_t kind = readU32(data);
    request->requestId = readU32(data + 4);
    if (kind == kSocketKindInterrupt)
        return request->kind = SocketRequestKind::Interrupt;
    if (kind != kSocketKindSend)
        return request->kind = SocketRequestKind::Ignored;

    // pos <= length holds throughout: it starts at the header's end and only advances past an
    // entry that was found whole, so "length - pos" never wraps.
    for (std::size_t pos = kSocketHeaderSize;; pos += kSocketEntrySize) {
        if (length - pos < kSocketEndEntrySize)
            break; // no end entry within the bytes received
        const unsigned char *entry = data + pos;
        const std::uint32_t type = readU32(entry);
        if (type == kSocketEntryEnd)
            return request->kind = SocketRequestKind::Send;
        if (length - pos < kSocketEntrySize)
            break;
        if (type != kSocketEntryMemory && type != kSocketEntryHandle)
            continue; // unknown types are skipped, and do not end the list

        SocketRequestEntry e;
        e.type = type;
        e.size = readU32(entry + 4);
        e.offset = readU32(entry + 8);
        e.elementAlignment = readU32(entry + 12);
        e.elementPadding = readU32(entry + 16);
        if (type == kSocketEntryHandle) {
            e.handle = readU64(entry + 20);
        } else if (std::uint64_t(e.offset) + e.size > length) {
            // In 64 bits: a 32-bit sum could wrap and let an offset near 4 GiB pass.
            break;
        }
        request->entries.push_back(e);
    }

    request->entries.clear();
    return request->kind = SocketRequestKind::Malformed;
}

} // namespace usbd
