// How the minimal senders write to the bulk IN endpoint: at the least what any program must do
// there, which is also what the daemon does. Calls of at most 32 entries and 8 MiB, short writes
// continued; and on ENOMEM the call size halves (down to 16 KiB) and stays halved, because the
// real kernel's FunctionFS copies each call into one contiguous kernel buffer and a controller
// without scatter-gather (dummy_hcd) cannot get one of 8 MiB. Shared by every benchmark's
// minimal side, so that they all pay the same for it.
#pragma once

#include <sys/ioctl.h>
#include <sys/uio.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <vector>

#include <usbd/protocol.h>

namespace endpointwrite {

constexpr std::size_t kMaxBytesPerCall = 8 * 1024 * 1024;
constexpr std::size_t kMinBytesPerCall = 16 * 1024;
constexpr int kMaxEntriesPerCall = int(usbd::kMaxSegments);
constexpr unsigned long kPhysicalTransfer = usbd::kPhysTransferIoctl;

// The call size that the endpoint took last; one for the whole process, as in the daemon.
inline std::atomic<std::size_t> &callLimit()
{
    static std::atomic<std::size_t> limit{kMaxBytesPerCall};
    return limit;
}

inline bool writeSegments(int fd, const std::vector<iovec> &segments)
{
    std::size_t index = 0, sent = 0;
    while (index < segments.size()) {
        iovec call[kMaxEntriesPerCall];
        int count = 0;
        std::size_t budget = callLimit().load(), length = 0;
        for (std::size_t i = index, from = sent;
             i < segments.size() && count < kMaxEntriesPerCall && budget > 0; ++i, from = 0) {
            const std::size_t take = std::min(segments[i].iov_len - from, budget);
            call[count++] = {static_cast<char *>(segments[i].iov_base) + from, take};
            budget -= take;
            length += take;
        }
        ssize_t written = ::writev(fd, call, count);
        if (written < 0 && errno == ENOMEM && length > kMinBytesPerCall) {
            callLimit() = std::max(kMinBytesPerCall, length / 2);
            continue;
        }
        if (written <= 0)
            return false;
        while (written > 0) {
            const std::size_t take = std::min(std::size_t(written), segments[index].iov_len - sent);
            sent += take;
            written -= ssize_t(take);
            if (sent == segments[index].iov_len) {
                ++index;
                sent = 0;
            }
        }
    }
    return true;
}

// Hands size bytes from a physical address to the endpoint, in calls of at most 8 MiB. A stock
// FunctionFS has no such request: then *unsupported (if given) is set, before any byte went.
inline bool writePhysical(int fd, std::uint32_t address, std::size_t size,
                          bool *unsupported = nullptr)
{
    for (std::size_t done = 0; done < size;) {
        struct {
            std::uint32_t address, length;
        } record{std::uint32_t(address + done),
                 std::uint32_t(std::min(size - done, kMaxBytesPerCall))};
        const int sent = ::ioctl(fd, kPhysicalTransfer, &record);
        if (sent < 0 && errno == ENOTTY && done == 0 && unsupported)
            *unsupported = true;
        if (sent <= 0)
            return false;
        done += std::size_t(sent);
    }
    return true;
}

} // namespace endpointwrite
