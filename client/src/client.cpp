#include <usbd/client.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <usbd/little_endian.h>

namespace usbd::client {
namespace {

long long monotonicMs()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

} // namespace

SendRequest &SendRequest::addMemory(const void *data, std::uint32_t size,
                                    std::uint32_t elementAlignment, std::uint32_t elementPadding)
{
    entries_.push_back({kEntryMemory, size, 0, elementAlignment, elementPadding, 0, data_.size()});
    const auto *bytes = static_cast<const std::uint8_t *>(data);
    data_.insert(data_.end(), bytes, bytes + size);
    return *this;
}

SendRequest &SendRequest::addHandle(std::uint64_t handle, std::uint32_t offset, std::uint32_t size,
                                    std::uint32_t elementAlignment, std::uint32_t elementPadding)
{
    entries_.push_back({kEntryHandle, size, offset, elementAlignment, elementPadding, handle, 0});
    return *this;
}

SendRequest &SendRequest::addOther(std::uint32_t type)
{
    entries_.push_back({type, 0, 0, 0, 0, 0, 0});
    return *this;
}

std::size_t SendRequest::encodedSize() const
{
    // Only the end entry's type word is sent.
    return kSocketHeaderSize + entries_.size() * kSocketEntrySize + kSocketEndEntrySize
           + data_.size();
}

std::size_t SendRequest::segmentCount() const
{
    std::size_t count = 0;
    for (const Entry &e : entries_) {
        if (e.type == kEntryMemory || e.type == kEntryHandle)
            count += segmentsOf(e.elementPadding);
    }
    return count;
}

bool SendRequest::encode(std::vector<std::uint8_t> *out, std::string *error) const
{
    out->clear();
    const std::size_t size = encodedSize();
    if (size > kMaxRequestSize) {
        if (error)
            *error = "the request needs " + std::to_string(size)
                     + " bytes; one request holds at most " + std::to_string(kMaxRequestSize);
        return false;
    }
    if (segmentCount() > kMaxSegments) {
        if (error)
            *error =
                "the request needs " + std::to_string(segmentCount())
                + " segments (one per entry, one more for its padding); the daemon sends at most "
                + std::to_string(kMaxSegments) + " in one request (" + std::to_string(kMaxSegments)
                + " entries, or " + std::to_string(kMaxSegments / 2) + " with padding)";
        return false;
    }
    out->assign(size, 0);

    std::uint8_t *p = out->data();
    storeLe32(p + kSocketKindAt, kSocketKindSend);
    storeLe32(p + kSocketRequestIdAt, requestId_);
    const std::size_t dataOffset = size - data_.size();
    for (std::size_t i = 0; i < entries_.size(); ++i) {
        const Entry &e = entries_[i];
        std::uint8_t *entry = p + kSocketHeaderSize + i * kSocketEntrySize;
        storeLe32(entry + kSocketEntryTypeAt, e.type);
        storeLe32(entry + kSocketEntrySizeAt, e.size);
        // Fits in 32 bits: the whole request is at most kMaxRequestSize bytes.
        const std::size_t offset = e.type == kEntryMemory ? dataOffset + e.dataStart : e.offset;
        storeLe32(entry + kSocketEntryOffsetAt, std::uint32_t(offset));
        storeLe32(entry + kSocketEntryAlignmentAt, e.elementAlignment);
        storeLe32(entry + kSocketEntryPaddingAt, e.elementPadding);
        storeLe64(entry + kSocketEntryHandleAt, e.handle);
    }
    // The end entry's type word is already 0.
    if (!data_.empty())
        std::memcpy(p + dataOffset, data_.data(), data_.size());
    return true;
}

std::vector<std::uint8_t> SendRequest::encode() const
{
    std::vector<std::uint8_t> out;
    encode(&out);
    return out;
}

std::vector<std::uint8_t> encodeInterrupt()
{
    std::vector<std::uint8_t> out(kSocketHeaderSize, 0);
    storeLe32(out.data() + kSocketKindAt, kSocketKindInterrupt);
    return out;
}

bool decodeResponse(const std::uint8_t *data, std::size_t length, Response *response)
{
    if (length < kResponseSize)
        return false;
    response->requestId = loadLe32(data + kSocketResponseIdAt);
    response->status = static_cast<std::int32_t>(loadLe32(data + kSocketResponseStatusAt));
    return true;
}

int Connection::connect(const std::string &path)
{
    close();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path)
        return -ENAMETOOLONG;
    std::memcpy(address.sun_path, path.data(), path.size());

    usbd::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd)
        return -errno;
    if (::connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0)
        return -errno;
    fd_ = std::move(fd);
    return 0;
}

int Connection::send(const std::vector<std::uint8_t> &request)
{
    if (!fd_)
        return -EBADF;
    ssize_t written;
    do {
        written = ::send(fd_.get(), request.data(), request.size(), MSG_NOSIGNAL);
    } while (written < 0 && errno == EINTR);
    if (written < 0)
        return -errno;
    return std::size_t(written) == request.size() ? 0 : -EMSGSIZE;
}

int Connection::receive(Response *response, int timeoutMs)
{
    if (!fd_)
        return -EBADF;
    const long long deadline = timeoutMs < 0 ? -1 : monotonicMs() + timeoutMs;
    while (partialLength_ < kResponseSize) {
        int waitMs = -1;
        if (deadline >= 0) {
            const long long left = deadline - monotonicMs();
            waitMs = left > 0 ? int(left) : 0;
        }
        pollfd p{fd_.get(), POLLIN, 0};
        const int ready = ::poll(&p, 1, waitMs);
        if (ready < 0) {
            if (errno == EINTR)
                continue;
            return -errno;
        }
        if (ready == 0)
            return -ETIMEDOUT;
        const ssize_t got = ::recv(fd_.get(), partial_ + partialLength_,
                                   kResponseSize - partialLength_, MSG_DONTWAIT);
        if (got == 0)
            return -ECONNRESET;
        if (got < 0) {
            if (errno == EINTR || errno == EAGAIN)
                continue;
            return -errno;
        }
        partialLength_ += std::size_t(got);
    }
    partialLength_ = 0;
    decodeResponse(partial_, kResponseSize, response);
    return 0;
}

int Connection::shutdownSending()
{
    if (!fd_)
        return -EBADF;
    return ::shutdown(fd_.get(), SHUT_WR) < 0 ? -errno : 0;
}

void Connection::close()
{
    fd_.reset();
    partialLength_ = 0;
}

} // namespace usbd::client
