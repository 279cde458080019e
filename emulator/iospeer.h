#pragma once

// The emulated iOS peer: the far end of the MFi stand-in library. It listens on the socket the
// library connects to (iosconn_sim.h), records every frame and record that arrives, puts each
// request back together from the pieces' request offsets, and answers each send as the test
// controls say (accept, accept part of a frame, fail, or hold the answer).
//
// One thread accepts; one thread per library connection reads its messages and answers them.

#include <usbd/unique_fd.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace usbdemu {

// Bounds what the peer keeps: the newest arrivals and requests, and the bytes of one request
// (a larger request is counted and logged but its bytes are not kept or captured).
constexpr size_t kMaxIosArrivals = 256;
constexpr size_t kMaxIosRequests = 64;
constexpr size_t kMaxIosKeptBytes = 64u << 20;

struct IosPeerStatus {
    size_t connections = 0;
    uint64_t arrivals = 0;  // frames and records received since the start (or ios-reset)
    uint64_t completed = 0; // requests whose total arrived
    unsigned failNext = 0;
    long partialNext = -1;
    bool blocked = false;
    size_t held = 0; // answers being held
    bool capturing = false;
};

class IosPeer {
public:
    IosPeer() = default;
    IosPeer(const IosPeer &) = delete;
    IosPeer &operator=(const IosPeer &) = delete;

    // Binds and listens at `path` (inside the emulator's mount namespace).
    bool listen(const std::string &path);
    int listenFd() const { return listen_.get(); }
    void start();

    // Test controls.
    void failNext(unsigned count);
    void partialNext(long payloadBytes);
    void setBlocked(bool blocked);
    // Forgets what arrived and the pending fail and partial counts; a block stays.
    void reset();
    // Each completed request's bytes are appended to `fd` (invalid: not captured).
    void setCapture(usbd::UniqueFd fd);

    IosPeerStatus status();
    std::string logJson();
    std::string logText();

private:
    enum class Kind { Frame, File, Shm };

    // One frame or record as it arrived, with its fields and what the peer answered.
    struct Arrival {
        uint64_t seq = 0;
        Kind kind = Kind::Frame;
        uint32_t marker = 0; // frames
        uint32_t total = 0;
        uint32_t offset = 0;  // frame: header offset; records: request offset
        uint32_t length = 0;  // frame: header length; records: size
        uint32_t source = 0;  // records: file offset or shared-memory offset
        uint32_t padding = 0; // records
        uint16_t session = 0;
        uint64_t handle = 0; // shm
        std::string path;    // file
        uint32_t data = 0;   // bytes that came with it
        uint32_t metaLength = 0;
        int32_t answer = 0;
        const char *result = "";
    };

    struct Request {
        uint64_t seq = 0;
        uint32_t total = 0;
        uint16_t session = 0;
        uint64_t received = 0; // data and padding bytes, pieces added up
        uint64_t end = 0;      // highest request offset reached
        size_t pieces = 0;
        bool complete = false;
        bool abandoned = false; // a new request began before this one was complete
        bool kept = false;
        std::vector<uint8_t> bytes;
    };

    void acceptLoop();
    void serve(usbd::UniqueFd conn);
    bool waitUnblocked(int conn);
    void addPieceLocked(const Arrival &arrival, uint32_t offset, const uint8_t *data, size_t size,
                        uint32_t padding);
    void recordLocked(Arrival arrival);
    std::string arrivalText(const Arrival &a) const;

    usbd::UniqueFd listen_;
    std::thread acceptThread_;

    std::mutex mutex_;
    std::condition_variable released_;
    size_t connections_ = 0;
    unsigned failNext_ = 0;
    long partialNext_ = -1;
    bool blocked_ = false;
    size_t held_ = 0;
    uint64_t nextSeq_ = 1;
    uint64_t arrivalCount_ = 0;
    uint64_t completed_ = 0;
    uint64_t nextRequestSeq_ = 1;
    std::deque<Arrival> arrivals_;
    std::deque<Request> requests_;
    usbd::UniqueFd capture_;
};

} // namespace usbdemu
