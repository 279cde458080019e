// Stand-in for the MFi link library. The link itself is played by the emulated iOS peer,
// which publishes its state in a file; the sends are not connected to it yet.

#include "libiosconn.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

#include <usbd/unique_fd.h>

namespace {

// Written by the emulated iOS peer by rename, so a reader sees either the old or the new line.
constexpr const char kLinkStatePath[] = "/run/mfi/link-state";
constexpr int kDataLink = 1;
// Enough for any int and a newline; a longer file is not a state line.
constexpr size_t kMaxStateBytes = 16;

// The state line is a decimal int followed by an optional newline; anything else (including a
// file still being written by hand) reads as "not connected" rather than a guess.
int parseState(const char *text, size_t length)
{
    if (length > 0 && text[length - 1] == '\n')
        --length;
    if (length == 0)
        return IOSCONN_NOT_CONNECTED;
    char line[kMaxStateBytes + 1] = {};
    for (size_t i = 0; i < length; ++i) {
        const char c = text[i];
        if (!(c >= '0' && c <= '9') && !(i == 0 && c == '-'))
            return IOSCONN_NOT_CONNECTED;
        line[i] = c;
    }
    errno = 0;
    char *end = nullptr;
    const long value = std::strtol(line, &end, 10);
    if (errno != 0 || end != line + length || value < INT_MIN || value > INT_MAX)
        return IOSCONN_NOT_CONNECTED;
    return static_cast<int>(value);
}

} // namespace

extern "C" {

int iosconn_init(void)
{
    return 0;
}

int iosconn_start(int /*link_id*/)
{
    return 0;
}

int iosconn_isconnect(int which)
{
    if (which != kDataLink)
        return IOSCONN_NOT_CONNECTED;
    // No state is kept between calls, so a poll can run while another thread sends.
    usbd::UniqueFd fd(::open(kLinkStatePath, O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!fd)
        return IOSCONN_NOT_CONNECTED;
    char buffer[kMaxStateBytes + 1];
    size_t length = 0;
    while (length < sizeof(buffer)) {
        const ssize_t n = ::read(fd.get(), buffer + length, sizeof(buffer) - length);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return IOSCONN_NOT_CONNECTED;
        if (n == 0)
            break;
        length += static_cast<size_t>(n);
    }
    if (length > kMaxStateBytes)
        return IOSCONN_NOT_CONNECTED;
    return parseState(buffer, length);
}

int iosconn_send_with_header(int /*link_id*/, const void * /*header*/, int /*header_len*/,
                             const void * /*payload*/, int /*payload_len*/, int /*flags*/)
{
    return -1;
}

int iosconn_send_file(int /*link_id*/, const void * /*record*/, int /*flags*/)
{
    return -1;
}

int iosconn_send_shm(int /*link_id*/, const void * /*record*/, int /*flags*/)
{
    return -1;
}

} // extern "C"
