#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <usbd/protocol.h>
#include <usbd/unique_fd.h>

// Client side of the daemon's local request socket: encodes send and interrupt requests,
// decodes responses, and offers a small blocking connection. The byte layout and the limits are
// the daemon's own, from <usbd/protocol.h>.
//
// A send request answers with one 8-byte response (request id, status 0 sent / -1 failed) once
// the daemon has transferred it; responses on one connection come in the order of the requests.
// An interrupt request makes the daemon signal its transfer thread once, which fails a USB write
// blocked at that moment; it is never answered.
// Each request must reach the daemon in one write of at most kMaxRequestSize bytes: the daemon
// takes every read as one whole request.
namespace usbd::client {

inline constexpr const auto &kDefaultSocketPath = usbd::kSocketPath;
constexpr std::size_t kMaxRequestSize = usbd::kSocketMaxRequestSize;
constexpr std::size_t kResponseSize = usbd::kSocketResponseSize;

// The daemon sends a request in at most kMaxSegments pieces (see usbd::kMaxSegments). It finds
// a longer request out only when it comes to send it and then answers -1, which looks like a
// broken link; encode() refuses one instead.
constexpr std::size_t kMaxSegments = usbd::kMaxSegments;
using usbd::segmentsOf;

// Entry types of a send request. Any other type is skipped by the daemon.
constexpr std::uint32_t kEntryEnd = usbd::kSocketEntryEnd;
constexpr std::uint32_t kEntryMemory = usbd::kSocketEntryMemory;
constexpr std::uint32_t kEntryHandle = usbd::kSocketEntryHandle;

// A send request being put together. Entries go out in the order they are added; the data of
// memory entries is placed after the end entry, in the same order.
class SendRequest {
public:
    explicit SendRequest(std::uint32_t requestId) : requestId_(requestId) {}

    // Bytes that travel inside the request; the daemon sends them followed by elementPadding
    // padding bytes.
    SendRequest &addMemory(const void *data, std::uint32_t size, std::uint32_t elementAlignment = 0,
                           std::uint32_t elementPadding = 0);
    // size bytes from offset in the platform shared-memory buffer named by handle.
    SendRequest &addHandle(std::uint64_t handle, std::uint32_t offset, std::uint32_t size,
                           std::uint32_t elementAlignment = 0, std::uint32_t elementPadding = 0);
    // An entry of another type, with all other fields zero (the daemon skips it).
    SendRequest &addOther(std::uint32_t type);

    std::uint32_t requestId() const { return requestId_; }
    std::size_t entryCount() const { return entries_.size(); }
    // The encoded length: header, entries, end entry, memory data.
    std::size_t encodedSize() const;
    // The segments the daemon needs to send it (see kMaxSegments).
    std::size_t segmentCount() const;
    // Encodes into *out. Returns false, with *out empty and a sentence saying why in *error (if
    // given), when the request would not fit in kMaxRequestSize bytes or needs more than
    // kMaxSegments segments.
    bool encode(std::vector<std::uint8_t> *out, std::string *error = nullptr) const;
    std::vector<std::uint8_t> encode() const; // empty when it cannot be sent

private:
    struct Entry {
        std::uint32_t type;
        std::uint32_t size;
        std::uint32_t offset; // handle entries; memory entries get theirs when encoded
        std::uint32_t elementAlignment;
        std::uint32_t elementPadding;
        std::uint64_t handle;
        std::size_t dataStart; // memory entries: where their bytes start in data_
    };

    std::uint32_t requestId_;
    std::vector<Entry> entries_;
    std::vector<std::uint8_t> data_;
};

// The 8 bytes of an interrupt request (its id field is present but unused).
std::vector<std::uint8_t> encodeInterrupt();

struct Response {
    std::uint32_t requestId = 0;
    std::int32_t status = 0; // 0 sent, -1 failed
    bool sent() const { return status == 0; }
};

// Decodes the first kResponseSize bytes; false when fewer are given.
bool decodeResponse(const std::uint8_t *data, std::size_t length, Response *response);

// One blocking connection to the daemon. Functions return 0 or a negative errno.
class Connection {
public:
    int connect(const std::string &path = kDefaultSocketPath);
    // Writes the request in one write; a partial write is -EMSGSIZE (the daemon would have
    // taken the piece for a whole request). A gone daemon gives -EPIPE, never SIGPIPE.
    int send(const std::vector<std::uint8_t> &request);
    // Waits up to timeoutMs (-1: no limit) for the next whole response. -ETIMEDOUT when none
    // came in time (a partly received response is kept for the next call), -ECONNRESET when
    // the daemon closed the connection.
    int receive(Response *response, int timeoutMs = -1);
    // Tells the daemon that no more requests follow; responses still arrive.
    int shutdownSending();
    void close();

    bool isOpen() const { return fd_.valid(); }
    int fd() const { return fd_.get(); }

private:
    usbd::UniqueFd fd_;
    std::uint8_t partial_[kResponseSize] = {};
    std::size_t partialLength_ = 0;
};

} // namespace usbd::client
