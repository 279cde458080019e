#pragma once

// One FunctionFS instance served over FUSE: ep0 takes the descriptors and strings blobs and
// then delivers function events; ep1..epN appear once both blobs are accepted and behave as
// bulk endpoints whose far end is the emulated host, driven through the control commands.
//
// All requests are answered from the FUSE session thread or, for requests that must wait (an
// event read, an IN write before the host enabled the function, a stalled write, an OUT read
// with no data yet), later from whichever thread changes the state they wait for. Nothing here
// ever blocks a thread on a client.

#define FUSE_USE_VERSION 35
#include <fuse_lowlevel.h>

#include "blobs.h"

#include <usbd/unique_fd.h>

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace usbdemu {

// Function event types as ep0 reports them (the kernel's enum usb_functionfs_event_type).
enum EventType : uint8_t {
    kEventBind = FUNCTIONFS_BIND,
    kEventUnbind = FUNCTIONFS_UNBIND,
    kEventEnable = FUNCTIONFS_ENABLE,
    kEventDisable = FUNCTIONFS_DISABLE,
    kEventSetup = FUNCTIONFS_SETUP,
    kEventSuspend = FUNCTIONFS_SUSPEND,
    kEventResume = FUNCTIONFS_RESUME,
};
const char *eventName(uint8_t type); // "bind", ..., or nullptr for a number without a name
bool parseEventType(const std::string &text, uint8_t &type);

constexpr size_t kEventRecordSize = sizeof(usb_functionfs_event);
// Bounds what the control side can pile up in the emulator's memory.
constexpr size_t kMaxQueuedEvents = 64;
constexpr size_t kMaxOutQueueBytes = 256u << 20;

struct EndpointStatus {
    std::string file; // "ep3"
    Endpoint desc;
    uint64_t bytes = 0;      // IN: accepted from the device; OUT: delivered to the device
    uint64_t writes = 0;     // IN: write system calls started (first chunks)
    uint64_t ioctls = 0;     // IN: physical-address transfers answered with a count
    uint64_t ioctlBytes = 0; // IN: bytes those delivered (also in `bytes`)
    uint64_t reads = 0;      // OUT: read requests answered with data
    size_t held = 0;         // requests waiting for the host (enable, stall, data)
    bool stalled = false;
    long shortNext = -1; // byte budget of the next write, -1 for none
    size_t queued = 0;   // OUT: bytes pushed by the host, not read yet
};

struct FunctionStatus {
    std::string state; // "waiting-descriptors", "waiting-strings", "ready"
    FunctionLayout layout;
    bool enabled = false;
    size_t eventsQueued = 0;
    size_t opens = 0;
    std::vector<EndpointStatus> endpoints;
    bool capturing = false;
    std::string captureEndpoint; // the first IN endpoint's file, once known
};

class FunctionFs {
public:
    FunctionFs();
    ~FunctionFs();
    FunctionFs(const FunctionFs &) = delete;
    FunctionFs &operator=(const FunctionFs &) = delete;

    // Creates the FUSE session and mounts it at `mountPoint`, which must exist.
    bool mount(const std::string &mountPoint);
    int sessionFd() const;
    // Serves requests on a thread of this process until stop().
    void start();
    void stop();

    // Bytes the host receives on the first IN endpoint go to `fd` (invalid fd: discarded).
    void setCapture(usbd::UniqueFd fd);

    // Host-side controls; each returns false with a reason in `why` when it cannot apply.
    bool plug(std::string &why); // BIND then ENABLE, endpoints enabled
    void unplug();               // DISABLE, in-flight transfers fail with ESHUTDOWN
    bool queueEvent(uint8_t type, const uint8_t setup[8], std::string &why);
    // `file` empty selects the first IN endpoint.
    bool setStall(const std::string &file, bool stalled, std::string &why);
    bool setShort(const std::string &file, long bytes, std::string &why);
    bool pushOut(const std::string &file, std::vector<uint8_t> data, std::string &why);
    bool pushOutEof(const std::string &file, std::string &why);

    bool waitReady(std::chrono::milliseconds timeout);
    FunctionStatus status();
    void logTotals();

    // FUSE entry points (called through the session's operation table).
    void opInit(fuse_conn_info *conn);
    void opLookup(fuse_req_t req, fuse_ino_t parent, const char *name);
    void opGetattr(fuse_req_t req, fuse_ino_t ino);
    void opReaddir(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off);
    void opOpen(fuse_req_t req, fuse_ino_t ino, fuse_file_info *fi);
    void opRelease(fuse_req_t req, fuse_ino_t ino, fuse_file_info *fi);
    void opRead(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off, fuse_file_info *fi);
    void opWrite(fuse_req_t req, fuse_ino_t ino, const char *buf, size_t size, off_t off,
                 fuse_file_info *fi);
    void opPoll(fuse_req_t req, fuse_ino_t ino, fuse_file_info *fi, fuse_pollhandle *ph);
    void opIoctl(fuse_req_t req, fuse_ino_t ino, unsigned int cmd, void *arg, fuse_file_info *fi);
    void onInterrupt(fuse_req_t req);

private:
    enum class State { WaitDescriptors, WaitStrings, Ready };
    enum class Setup { None, Pending, Cancelled };

    struct Event {
        uint8_t setup[8];
        uint8_t type;
    };

    // A request that waits for the host. Writes keep a copy of their bytes because the
    // session's buffer is reused as soon as the handler returns. A physical-address transfer
    // keeps the memory instead (a descriptor of it and where its range starts) and is read when
    // the host takes it, as a DMA would.
    struct Held {
        fuse_req_t req;
        bool write;
        size_t size;
        off_t off;
        bool inFlight; // arrived (or was released) while the function was enabled
        std::vector<uint8_t> data;
        usbd::UniqueFd memory; // physical-address transfers only
        uint64_t memoryOffset = 0;
    };

    struct Ep {
        Endpoint desc;
        std::deque<Held> held;
        bool stalled = false;
        long shortNext = -1;
        long budget = -1; // bytes the current write system call may still deliver; -1 no limit
        uint64_t syscallGeneration = 0;
        std::deque<std::vector<uint8_t>> outQueue; // an empty element is an end-of-data mark
        size_t outFront = 0;                       // bytes of outQueue.front() already read
        size_t outBytes = 0;
        uint64_t bytes = 0, writes = 0, reads = 0, ioctls = 0, ioctlBytes = 0;
    };

    // Lifetime counts per endpoint file, so that the summary at exit survives a function reset.
    struct Totals {
        uint64_t bytes = 0, writes = 0, ioctls = 0;
    };

    using Lock = std::unique_lock<std::mutex>;

    void queueEventLocked(uint8_t type, const uint8_t setup[8]);
    void setEnabledLocked(bool enabled);
    void resetLocked();
    void notifyPollLocked();
    void serveEventReadersLocked();
    void replyEvents(fuse_req_t req, size_t count);
    void serviceEpLocked(Ep &ep);
    bool acceptWriteLocked(Ep &ep, fuse_req_t req, const uint8_t *data, size_t size, off_t off);
    void acceptPhysLocked(Ep &ep, Held &held);
    void beginCallLocked(Ep &ep);
    size_t budgetLocked(Ep &ep, size_t size);
    bool isCaptureEpLocked(const Ep &ep) const;
    void captureLocked(const uint8_t *data, size_t size);
    std::string fileOfLocked(const Ep &ep) const;
    size_t takeOutLocked(Ep &ep, uint8_t *out, size_t size);
    bool outReadyLocked(const Ep &ep) const;
    Ep *epForFileLocked(const std::string &file, std::string &why);
    Ep *epForInodeLocked(fuse_ino_t ino);
    void hold(Lock &lock, std::deque<Held> &queue, Held held);
    bool epExistsLocked(fuse_ino_t ino) const;
    void fillAttr(fuse_ino_t ino, struct stat &st) const;
    void ep0Write(fuse_req_t req, const uint8_t *data, size_t size, off_t off);
    void ep0Read(fuse_req_t req, size_t size, fuse_file_info *fi);
    bool attachEventFdLocked(fuse_req_t req, std::string &why);
    void physTransfer(fuse_req_t req, fuse_ino_t ino, void *arg);

    fuse_session *session_ = nullptr;
    std::string mountPoint_;
    std::thread thread_;
    time_t mountTime_ = 0;

    std::mutex mutex_;
    std::condition_variable readyChanged_;
    State state_ = State::WaitDescriptors;
    FunctionLayout layout_;
    std::vector<Ep> eps_;
    std::deque<Event> events_;
    Setup setup_ = Setup::None;
    uint8_t pendingSetup_[8] = {};
    std::deque<Held> eventReaders_;
    std::map<uint64_t, fuse_pollhandle *> pollHandles_;
    usbd::UniqueFd eventFd_;
    bool enabled_ = false;
    uint64_t enableGeneration_ = 0;
    size_t opens_ = 0;
    uint64_t nextFh_ = 1;
    usbd::UniqueFd capture_;
    bool captureFailed_ = false;
    std::map<std::string, Totals> totals_;
};

} // namespace usbdemu
