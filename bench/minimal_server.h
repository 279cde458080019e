// The request loop of the benchmarks' minimal servers of the daemon's socket protocol: what a
// program must do at the least to serve one connection. Each read is one request, decoded by the
// daemon's own parser; each memory or handle entry is handed to a sender in order, and a send
// request is answered once all its entries have gone, with -1 if any failed. Bad requests and
// interrupts get no answer, as from the daemon.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>

#include <usbd/little_endian.h>
#include <usbd/protocol.h>

#include "usbdsocketrequest.h"

namespace minimalserver {

// send(request, entry) sends one entry; request holds the bytes read, where a memory entry's
// data lies at entry.offset. Returns when the client has gone; the connection is left open.
template <typename Send>
void serve(int client, Send send)
{
    std::uint8_t request[usbd::kSocketMaxRequestSize];
    usbd::SocketRequest parsed;
    for (;;) {
        const ssize_t length = ::read(client, request, sizeof request);
        if (length <= 0)
            return;
        if (usbd::parseSocketRequest(request, std::size_t(length), &parsed)
            != usbd::SocketRequestKind::Send)
            continue;
        std::int32_t status = usbd::kSocketStatusSent;
        for (const usbd::SocketRequestEntry &entry : parsed.entries) {
            if (!send(request, entry))
                status = usbd::kSocketStatusFailed;
        }
        std::uint8_t response[usbd::kSocketResponseSize];
        usbd::storeLe32(response + usbd::kSocketResponseIdAt, parsed.requestId);
        usbd::storeLe32(response + usbd::kSocketResponseStatusAt, std::uint32_t(status));
        if (::send(client, response, sizeof response, MSG_NOSIGNAL) != ssize_t(sizeof response))
            return;
    }
}

} // namespace minimalserver
