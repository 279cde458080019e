// How the minimal senders write to the bulk IN endpoint: at the least what any program must do
// there, which is also what the daemon does. Calls of at most 32 entries and 8 MiB, short writes
// continued; and on ENOMEM the call size halves (down to 16 KiB) and stays halved, because the
// real kernel's FunctionFS copies each call into one contiguous kernel buffer and a controller
// without scatter-gather (dummy_hcd) cannot get one of 8 MiB. Shared by e2e_bench and
// e2e_minimal, so that both minimal sides pay the same for it.
#pragma once

#include <sys/uio.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <vector>

namespace e2ebench {

constexpr std::size_t kMaxBytesPerCall = 8 * 1024 * 1024;
constexpr std::size_t kMinBytesPerCall = 16 * 1024;
constexpr int kMaxEntriesPerCall = 32;

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

} // namespace e2ebench
