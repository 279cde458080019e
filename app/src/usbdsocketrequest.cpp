#include "usbdsocketrequest.h"

#include <usbd/little_endian.h>

namespace usbd {

SocketRequestKind parseSocketRequest(const unsigned char *data, std::size_t length,
                                     SocketRequest *request)
{
    request->entries.clear();
    request->requestId = 0;

    if (length < kSocketHeaderSize)
        return request->kind = SocketRequestKind::TooShort;
    if (length > kSocketMaxRequestSize)
        return request->kind = SocketRequestKind::Malformed;

    const std::uint32_t kind = loadLe32(data + kSocketKindAt);
    request->requestId = loadLe32(data + kSocketRequestIdAt);
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
        const std::uint32_t type = loadLe32(entry + kSocketEntryTypeAt);
        if (type == kSocketEntryEnd)
            return request->kind = SocketRequestKind::Send;
        if (length - pos < kSocketEntrySize)
            break;
        if (type != kSocketEntryMemory && type != kSocketEntryHandle)
            continue; // unknown types are skipped, and do not end the list

        SocketRequestEntry e;
        e.type = type;
        e.size = loadLe32(entry + kSocketEntrySizeAt);
        e.offset = loadLe32(entry + kSocketEntryOffsetAt);
        e.elementAlignment = loadLe32(entry + kSocketEntryAlignmentAt);
        e.elementPadding = loadLe32(entry + kSocketEntryPaddingAt);
        if (type == kSocketEntryHandle) {
            e.handle = loadLe64(entry + kSocketEntryHandleAt);
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
