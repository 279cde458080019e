// Stand-in for the MFi link library. The iOS side is played by the device emulator's iOS peer:
// the link state comes from a file the peer publishes, and every send is one message on the
// peer's socket (iosconn_sim.h), answered with what the call returns. As in the real library,
// files and shared memory named by a record are read here, in the caller's process.

#include "libiosconn.h"

#include "iosconn_sim.h"

#include <arvo_hal.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include <usbd/unique_fd.h>

namespace {

constexpr int kDataLink = 1;
// Enough for any int and a newline; a longer file is not a state line.
constexpr size_t kMaxStateBytes = 16;
// Files go to the peer in pieces of this size, so a large file is never held in memory whole.
constexpr size_t kFileChunk = 1 << 20;
constexpr char kIonDevice[] = "/dev/ion";

// One transfer thread sends, but the calls are serialised anyway: a message on the peer's
// socket must not interleave with another. iosconn_isconnect never takes this lock.
std::mutex sendMutex;
usbd::UniqueFd peer;             // guarded by sendMutex; opened on first use
arvo_hal_handle_t ionDevice = 0; // guarded by sendMutex; opened on the first shm record

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

uint32_t get32(const uint8_t *p)
{
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
uint16_t get16(const uint8_t *p)
{
    return uint16_t(p[0] | p[1] << 8);
}
uint64_t get64(const uint8_t *p)
{
    return uint64_t(get32(p)) | uint64_t(get32(p + 4)) << 32;
}

int fail(int error)
{
    errno = error;
    return -1;
}

// Drops the connection after any failure in the middle of a message: the peer discards what
// it got, and the next send starts on a fresh connection. errno survives for the caller.
int dropPeer()
{
    const int error = errno;
    peer.reset();
    errno = error;
    return -1;
}

// A signal (the daemon's interrupt) ends the wait with EINTR instead of being retried here.
bool sendAll(const void *data, size_t size)
{
    const uint8_t *p = static_cast<const uint8_t *>(data);
    while (size > 0) {
        const ssize_t n = ::send(peer.get(), p, size, MSG_NOSIGNAL);
        if (n < 0)
            return false;
        p += n;
        size -= size_t(n);
    }
    return true;
}

bool receiveAll(void *data, size_t size)
{
    uint8_t *p = static_cast<uint8_t *>(data);
    while (size > 0) {
        const ssize_t n = ::recv(peer.get(), p, size, 0);
        if (n == 0)
            errno = ECONNRESET;
        if (n <= 0)
            return false;
        p += n;
        size -= size_t(n);
    }
    return true;
}

bool connectPeer()
{
    if (peer)
        return true;
    usbd::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd)
        return false;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, IOSCONN_SIM_PEER_SOCKET, sizeof(addr.sun_path) - 1);
    if (::connect(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0)
        return false;
    peer = std::move(fd);
    return true;
}

// A send needs a link and the peer at its end; without them it fails before looking at what
// the caller handed over. Caller holds sendMutex.
bool sessionReady()
{
    if (iosconn_isconnect(kDataLink) == IOSCONN_NOT_CONNECTED) {
        errno = ENOTCONN;
        return false;
    }
    return connectPeer();
}

// Sends the head and meta part of a message; the caller sends exactly data_length bytes next.
// Caller holds sendMutex, after sessionReady().
bool beginMessage(uint32_t kind, const void *meta, uint32_t metaLength, uint32_t dataLength,
                  uint32_t paddingLength)
{
    const iosconn_sim_head head{kind, metaLength, dataLength, paddingLength};
    return sendAll(&head, sizeof(head)) && sendAll(meta, metaLength);
}

int finishMessage()
{
    int32_t answer = -1;
    if (!receiveAll(&answer, sizeof(answer)))
        return dropPeer();
    if (answer < 0)
        errno = EIO; // the peer refused it
    return answer;
}

// The HAL session for importing shared memory, opened once and kept for the process's life,
// as the caller's own HAL use does not depend on it. Caller holds sendMutex.
bool ionReady()
{
    if (ionDevice != 0)
        return true;
    if (arvo_hal_initialize(nullptr) != ARVO_HAL_OK)
        return false;
    arvo_hal_handle_t device = 0;
    const int opened = arvo_hal_device_open(kIonDevice, nullptr, &device);
    if (opened != ARVO_HAL_OK && opened != ARVO_HAL_ERR_ALREADY_OPEN) {
        arvo_hal_deinitialize();
        return false;
    }
    ionDevice = device;
    return true;
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
    usbd::UniqueFd fd(::open(IOSCONN_SIM_LINK_STATE, O_RDONLY | O_CLOEXEC | O_NOCTTY));
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

int iosconn_send_with_header(int /*link_id*/, const void *header, int header_len,
                             const void *payload, int payload_len, int /*flags*/)
{
    if (header_len < 0 || header_len > IOSCONN_SIM_MAX_META || payload_len < 0
        || (!header && header_len > 0) || (!payload && payload_len > 0))
        return fail(EINVAL);
    std::lock_guard<std::mutex> lock(sendMutex);
    if (!sessionReady()
        || !beginMessage(IOSCONN_SIM_FRAME, header, uint32_t(header_len), uint32_t(payload_len), 0)
        || !sendAll(payload, size_t(payload_len)))
        return dropPeer();
    return finishMessage();
}

int iosconn_send_file(int /*link_id*/, const void *record, int /*flags*/)
{
    if (!record)
        return fail(EINVAL);
    std::lock_guard<std::mutex> lock(sendMutex);
    if (!sessionReady())
        return dropPeer();
    // The record is read only as far as its own path length says it reaches.
    const uint8_t *r = static_cast<const uint8_t *>(record);
    const uint32_t fileOffset = get32(r);
    const uint32_t size = get32(r + 12);
    const uint32_t padding = get32(r + 16);
    const uint16_t pathLength = get16(r + 22);
    const char *path = reinterpret_cast<const char *>(r + IOSCONN_SIM_FILE_RECORD);
    if (pathLength == 0 || path[pathLength] != '\0' || std::memchr(path, '\0', pathLength))
        return fail(EINVAL);

    usbd::UniqueFd fd(::open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    struct stat st;
    if (!fd || ::fstat(fd.get(), &st) != 0)
        return -1;
    if (!S_ISREG(st.st_mode))
        return fail(EINVAL);
    if (uint64_t(fileOffset) + size > uint64_t(st.st_size))
        return fail(ERANGE);

    const uint32_t metaLength = IOSCONN_SIM_FILE_RECORD + pathLength + 1u;
    if (!beginMessage(IOSCONN_SIM_FILE, record, metaLength, size, padding))
        return dropPeer();
    std::vector<uint8_t> chunk(std::min<size_t>(size, kFileChunk));
    for (uint64_t done = 0; done < size;) {
        const size_t want = size_t(std::min<uint64_t>(chunk.size(), size - done));
        const ssize_t n = ::pread(fd.get(), chunk.data(), want, off_t(fileOffset + done));
        if (n == 0)
            errno = EIO; // the file shrank after the check
        if (n <= 0 || !sendAll(chunk.data(), size_t(n)))
            return dropPeer();
        done += uint64_t(n);
    }
    return finishMessage();
}

int iosconn_send_shm(int /*link_id*/, const void *record, int /*flags*/)
{
    if (!record)
        return fail(EINVAL);
    std::lock_guard<std::mutex> lock(sendMutex);
    if (!sessionReady())
        return dropPeer();
    const uint8_t *r = static_cast<const uint8_t *>(record);
    const uint32_t offset = get32(r);
    const uint32_t size = get32(r + 12);
    const uint32_t padding = get32(r + 16);
    const uint64_t handle = get64(r + 22);
    if (!ionReady())
        return fail(ENODEV);
    arvo_hal_mem_t memory = 0;
    if (arvo_hal_mem_import(ionDevice, &memory, handle) != ARVO_HAL_OK)
        return fail(ENOENT);
    uint32_t memorySize = 0;
    uint8_t *base = nullptr;
    int result = -1;
    if (arvo_hal_mem_get_size(memory, &memorySize) != ARVO_HAL_OK
        || uint64_t(offset) + size > memorySize) {
        errno = ERANGE;
    } else if (arvo_hal_mem_map(memory, &base) != ARVO_HAL_OK) {
        errno = ENOMEM;
    } else if (!beginMessage(IOSCONN_SIM_SHM, record, IOSCONN_SIM_SHM_RECORD, size, padding)
               || !sendAll(base + offset, size)) {
        dropPeer();
    } else {
        result = finishMessage();
    }
    const int error = errno;
    arvo_hal_mem_unmap(memory);
    arvo_hal_mem_free(memory);
    errno = error;
    return result;
}

} // extern "C"
