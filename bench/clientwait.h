// Waiting for a daemon (or a minimal server of the same protocol) from a benchmark's client:
// first for its socket, then for its USB link.
#pragma once

#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include <usbd/client.h>

namespace benchwait {

inline bool connectWithin(usbd::client::Connection *connection, const std::string &path,
                          std::chrono::seconds limit)
{
    for (auto end = std::chrono::steady_clock::now() + limit;
         std::chrono::steady_clock::now() < end;) {
        if (connection->connect(path) == 0)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

// Empty requests fail until the server has the USB link; one that meets the link change in the
// queue is dropped unanswered, which also means "not yet".
inline bool waitForLink(usbd::client::Connection *connection, std::chrono::seconds limit)
{
    for (auto end = std::chrono::steady_clock::now() + limit;
         std::chrono::steady_clock::now() < end;) {
        usbd::client::Response response;
        if (connection->send(usbd::client::SendRequest(0).encode()) != 0)
            return false;
        const int received = connection->receive(&response, 1000);
        if (received != 0 && received != -ETIMEDOUT)
            return false;
        if (received == 0 && response.sent())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

} // namespace benchwait
