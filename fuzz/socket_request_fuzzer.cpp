// Feeds arbitrary bytes to the socket request parser, as one read of the server would, and
// checks what the server relies on: nothing outside the bytes is read (AddressSanitizer sees
// the exact-size input), memory data lies within them, and a decoded send request depends on
// no byte past those it names.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include <usbd/little_endian.h>

#include "usbdsocketrequest.h"

namespace {

void check(bool condition)
{
    if (!condition)
        std::abort();
}

bool sameEntries(const usbd::SocketRequest &a, const usbd::SocketRequest &b)
{
    if (a.entries.size() != b.entries.size())
        return false;
    for (std::size_t i = 0; i < a.entries.size(); ++i) {
        const usbd::SocketRequestEntry &x = a.entries[i];
        const usbd::SocketRequestEntry &y = b.entries[i];
        if (x.type != y.type || x.size != y.size || x.offset != y.offset
            || x.elementAlignment != y.elementAlignment || x.elementPadding != y.elementPadding
            || x.handle != y.handle)
            return false;
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    usbd::SocketRequest request;
    const usbd::SocketRequestKind kind = usbd::parseSocketRequest(data, size, &request);
    check(kind == request.kind);
    if (kind != usbd::SocketRequestKind::Send) {
        check(request.entries.empty());
        return 0;
    }

    check(size >= usbd::kSocketHeaderSize + usbd::kSocketEndEntrySize);
    check(size <= usbd::kSocketMaxRequestSize);
    check(request.entries.size() <= usbd::kSocketMaxEntries);

    // The bytes the request needs: its entries up to and including the end entry's type word
    // (skipped entries included), and every memory entry's data.
    std::size_t extent = usbd::kSocketHeaderSize;
    for (;; extent += usbd::kSocketEntrySize) {
        // In range, or the parser was wrong.
        if (usbd::loadLe32(data + extent + usbd::kSocketEntryTypeAt) == usbd::kSocketEntryEnd)
            break;
    }
    extent += usbd::kSocketEndEntrySize;

    std::vector<unsigned char> copy;
    for (const usbd::SocketRequestEntry &entry : request.entries) {
        check(entry.type == usbd::kSocketEntryMemory || entry.type == usbd::kSocketEntryHandle);
        if (entry.type != usbd::kSocketEntryMemory)
            continue;
        const std::uint64_t end = std::uint64_t(entry.offset) + entry.size;
        check(end <= size);
        if (end > extent)
            extent = std::size_t(end);
        // The copy the server makes of the data; ASan checks it stays within the input.
        copy.assign(data + entry.offset, data + end);
    }
    check(extent <= size);

    // Only the named bytes matter: the same request cut right after them decodes identically.
    std::vector<std::uint8_t> cut(data, data + extent);
    usbd::SocketRequest again;
    const usbd::SocketRequestKind kindAgain =
        usbd::parseSocketRequest(cut.data(), cut.size(), &again);
    check(kindAgain == usbd::SocketRequestKind::Send);
    check(again.requestId == request.requestId);
    check(sameEntries(request, again));
    return 0;
}
