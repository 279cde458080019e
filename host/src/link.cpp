// Finding, opening and streaming to and from the function with libusb, behind the C interface
// of <usbd/host.h>.

#include <usbd/host.h>

#include "function.h"

#include <libusb.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <deque>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

using usbd::host::BusAddress;
using usbd::host::Endpoint;
using usbd::host::FunctionInterface;
using usbd::host::toString;
using Clock = std::chrono::steady_clock;

constexpr auto kPollInterval = std::chrono::milliseconds(500);
constexpr auto kTick = std::chrono::milliseconds(100);
// A device node appears before udev has applied its rule to it; a waiting caller gives udev
// this long before a refusal counts.
constexpr auto kPermissionGrace = std::chrono::seconds(3);
constexpr int kDefaultIdleTimeoutMs = 10000;
constexpr size_t kDefaultTransferSize = 1024 * 1024;
constexpr int kDefaultTransfersInFlight = 4;
// The smallest transfer tried when the kernel cannot find memory for a larger one.
constexpr size_t kMinTransferSize = 16 * 1024;
// A transfer that failed may be the first sign of a device leaving the bus: the hub notices
// the disconnect a little later. This long it is asked whether it is still there.
constexpr auto kGoneCheckTime = std::chrono::seconds(1);
constexpr size_t kMaxTransferSize = 64 * 1024 * 1024;
constexpr int kMaxTransfersInFlight = 16;

} // namespace

// What the library knows of one device carrying the function.
struct usbd_host_device {
    BusAddress location;
    uint16_t vendorId = 0;
    uint16_t productId = 0;
    int speed = 0; // libusb_speed
    uint8_t configurationValue = 0;
    unsigned maxPowerMilliamps = 0;
    FunctionInterface function;
    // Strings need the device opened; when it cannot be, stringsError says why.
    std::string strings[4];
    std::string stringsError;
};

struct usbd_host_list {
    std::vector<usbd_host_device> devices;
};

struct usbd_host {
    // Options.
    std::optional<BusAddress> only;
    bool wait = false;
    int idleTimeoutMs = kDefaultIdleTimeoutMs;
    size_t transferSize = kDefaultTransferSize;
    int transfersInFlight = kDefaultTransfersInFlight;
    usbd_host_progress_fn progress = nullptr;
    void *progressUser = nullptr;

    // Raised by usbd_host_interrupt(), from any thread or a signal handler; taken back by the
    // call that ends because of it.
    std::atomic<bool> interruptRequested{false};
    std::string error;

    // The open device, if any.
    libusb_context *context = nullptr;
    libusb_device_handle *handle = nullptr;
    bool claimed = false;
    usbd_host_device opened;

    // The last stream.
    uint64_t streamBytes = 0;
    double streamSeconds = 0;
    uint64_t streamDiscarded = 0;
};

namespace {

struct ContextDeleter {
    void operator()(libusb_context *context) const { libusb_exit(context); }
};
using ContextPtr = std::unique_ptr<libusb_context, ContextDeleter>;

struct DeviceDeleter {
    void operator()(libusb_device *device) const { libusb_unref_device(device); }
};
using DevicePtr = std::unique_ptr<libusb_device, DeviceDeleter>;

struct HandleDeleter {
    void operator()(libusb_device_handle *handle) const { libusb_close(handle); }
};
using HandlePtr = std::unique_ptr<libusb_device_handle, HandleDeleter>;

struct ConfigDeleter {
    void operator()(libusb_config_descriptor *config) const
    {
        libusb_free_config_descriptor(config);
    }
};
using ConfigPtr = std::unique_ptr<libusb_config_descriptor, ConfigDeleter>;

bool interrupted(const usbd_host *host)
{
    return host->interruptRequested.load();
}

// Ends a call with status; an interruption is used up by the call it ended.
usbd_host_status finish(usbd_host *host, usbd_host_status status,
                        std::string message = std::string())
{
    if (status == USBD_HOST_INTERRUPTED)
        host->interruptRequested.store(false);
    host->error = status == USBD_HOST_OK ? std::string() : std::move(message);
    return status;
}

// Nothing thrown may cross the C interface; the only thing that can be thrown here is a failed
// allocation.
template <typename Body>
usbd_host_status guarded(usbd_host *host, Body body)
{
    try {
        return body();
    } catch (const std::bad_alloc &) {
        return finish(host, USBD_HOST_FAILED, "out of memory");
    }
}

void sleepFor(Clock::duration duration, const usbd_host *host)
{
    const auto until = Clock::now() + duration;
    while (!interrupted(host) && Clock::now() < until)
        std::this_thread::sleep_for(std::min<Clock::duration>(kTick, until - Clock::now()));
}

usbd_host_status statusOf(int libusbError)
{
    switch (libusbError) {
    case LIBUSB_SUCCESS:
        return USBD_HOST_OK;
    case LIBUSB_ERROR_ACCESS:
        return USBD_HOST_ACCESS_DENIED;
    case LIBUSB_ERROR_BUSY:
        return USBD_HOST_BUSY;
    case LIBUSB_ERROR_NO_DEVICE:
        return USBD_HOST_GONE;
    case LIBUSB_ERROR_TIMEOUT:
        return USBD_HOST_TIMEOUT;
    case LIBUSB_ERROR_INTERRUPTED:
        return USBD_HOST_INTERRUPTED;
    default:
        return USBD_HOST_FAILED;
    }
}

std::string functionShape()
{
    return "a vendor interface ff/00/00 with four bulk endpoints";
}

ContextPtr makeContext(std::string *error)
{
    libusb_context *context = nullptr;
    const int rc = libusb_init(&context);
    if (rc != LIBUSB_SUCCESS) {
        *error = std::string("cannot start libusb: ") + libusb_strerror(rc);
        return nullptr;
    }
    return ContextPtr(context);
}

struct Candidate {
    DevicePtr device;
    libusb_device_descriptor descriptor{};
    usbd_host_device info;
};

// present: whether a device sits at `only` at all, to tell "not there" from "not ours".
std::vector<Candidate> scan(libusb_context *context, const std::optional<BusAddress> &only,
                            bool *present)
{
    std::vector<Candidate> found;
    libusb_device **list = nullptr;
    const ssize_t count = libusb_get_device_list(context, &list);
    for (ssize_t i = 0; i < count; ++i) {
        libusb_device *device = list[i];
        const BusAddress location{libusb_get_bus_number(device), libusb_get_device_address(device)};
        if (only && *only != location)
            continue;
        *present = true;
        Candidate candidate;
        if (libusb_get_device_descriptor(device, &candidate.descriptor) != LIBUSB_SUCCESS)
            continue;
        // An unconfigured device offers no interfaces; Linux configures the gadget's only
        // configuration on its own, so there is nothing to choose here.
        libusb_config_descriptor *raw = nullptr;
        if (libusb_get_active_config_descriptor(device, &raw) != LIBUSB_SUCCESS)
            continue;
        const ConfigPtr config(raw);
        auto function = usbd::host::findFunction(*config);
        if (!function)
            continue;
        usbd_host_device &info = candidate.info;
        info.location = location;
        info.vendorId = candidate.descriptor.idVendor;
        info.productId = candidate.descriptor.idProduct;
        info.speed = libusb_get_device_speed(device);
        info.configurationValue = config->bConfigurationValue;
        info.maxPowerMilliamps = usbd::host::maxPowerMilliamps(config->MaxPower, info.speed);
        info.function = std::move(*function);
        candidate.device.reset(libusb_ref_device(device));
        found.push_back(std::move(candidate));
    }
    // The list exists also when it is empty; only a failed call leaves none.
    if (count >= 0)
        libusb_free_device_list(list, 1);
    return found;
}

void readStrings(libusb_device_handle *handle, const libusb_device_descriptor &descriptor,
                 usbd_host_device *info)
{
    auto read = [&](uint8_t index, std::string *into) {
        if (index == 0)
            return;
        unsigned char text[256];
        const int rc = libusb_get_string_descriptor_ascii(handle, index, text, sizeof(text));
        if (rc >= 0)
            into->assign(reinterpret_cast<const char *>(text), size_t(rc));
        else if (info->stringsError.empty())
            info->stringsError = "string " + std::to_string(index) + ": " + libusb_strerror(rc);
    };
    read(descriptor.iManufacturer, &info->strings[USBD_HOST_MANUFACTURER]);
    read(descriptor.iProduct, &info->strings[USBD_HOST_PRODUCT]);
    read(descriptor.iSerialNumber, &info->strings[USBD_HOST_SERIAL]);
    read(info->function.stringIndex, &info->strings[USBD_HOST_INTERFACE_NAME]);
}

std::string permissionMessage(const usbd_host_device &device)
{
    return usbd::host::permissionMessage(device.location, device.vendorId, device.productId);
}

// Wakes a waiting caller when a device arrives, where libusb can say so.
class ArrivalWatch {
public:
    ArrivalWatch()
    {
        if (!libusb_has_capability(LIBUSB_CAP_HAS_HOTPLUG))
            return;
        std::string ignored;
        context_ = makeContext(&ignored);
        if (context_
            && libusb_hotplug_register_callback(context_.get(), LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED,
                                                LIBUSB_HOTPLUG_NO_FLAGS, LIBUSB_HOTPLUG_MATCH_ANY,
                                                LIBUSB_HOTPLUG_MATCH_ANY, LIBUSB_HOTPLUG_MATCH_ANY,
                                                &ArrivalWatch::arrived, this, nullptr)
                   != LIBUSB_SUCCESS)
            context_.reset();
    }

    // Until a device arrives, the poll interval has passed, or the caller gives up. Polling
    // stays even with hot-plug events: they come from the udev daemon, which a minimal system
    // may not run.
    void sleep(const usbd_host *host)
    {
        if (!context_) {
            sleepFor(kPollInterval, host);
            return;
        }
        arrived_ = 0;
        const auto until = Clock::now() + kPollInterval;
        while (!arrived_ && !interrupted(host) && Clock::now() < until) {
            timeval tick{0, long(std::chrono::microseconds(kTick).count())};
            libusb_handle_events_timeout_completed(context_.get(), &tick, &arrived_);
        }
    }

private:
    static int LIBUSB_CALL arrived(libusb_context *, libusb_device *, libusb_hotplug_event,
                                   void *self)
    {
        static_cast<ArrivalWatch *>(self)->arrived_ = 1;
        return 0;
    }

    ContextPtr context_;
    int arrived_ = 0;
};

struct Found {
    ContextPtr context; // declared first: the devices below must go before their context
    std::vector<Candidate> candidates;
};

// Every scan uses a fresh libusb context: a context's device list follows udev's hot-plug
// events, and without a udev daemon it would never show a device that arrived after it.
usbd_host_status find(usbd_host *host, Found *found)
{
    std::unique_ptr<ArrivalWatch> watch;
    for (;;) {
        found->candidates.clear();
        std::string error;
        found->context = makeContext(&error);
        if (!found->context)
            return finish(host, USBD_HOST_FAILED, error);
        bool present = false;
        found->candidates = scan(found->context.get(), host->only, &present);
        if (!found->candidates.empty())
            return USBD_HOST_OK;
        if (!host->wait) {
            if (!host->only)
                error = "no device carrying the function (" + functionShape() + ") is attached";
            else if (present)
                error = "device " + toString(*host->only) + " does not carry the function ("
                        + functionShape() + ")";
            else
                error = "no device at " + toString(*host->only);
            return finish(host, USBD_HOST_NOT_FOUND, error);
        }
        if (!watch)
            watch = std::make_unique<ArrivalWatch>();
        watch->sleep(host);
        if (interrupted(host))
            return finish(host, USBD_HOST_INTERRUPTED, "interrupted while waiting for the device");
    }
}

void closeDevice(usbd_host *host)
{
    if (host->claimed)
        libusb_release_interface(host->handle, host->opened.function.interfaceNumber);
    if (host->handle)
        libusb_close(host->handle);
    if (host->context)
        libusb_exit(host->context);
    host->claimed = false;
    host->handle = nullptr;
    host->context = nullptr;
    host->opened = usbd_host_device();
}

// ---- Streaming

struct Slot {
    libusb_transfer *transfer = nullptr;
    std::unique_ptr<uint8_t[]> buffer;
    bool completed = false;
};

void LIBUSB_CALL onTransferDone(libusb_transfer *transfer)
{
    static_cast<Slot *>(transfer->user_data)->completed = true;
}

// Several bulk transfers in flight on one endpoint, taken back in the order they were sent
// (the endpoint's queue fills them in that order), so the bytes stay in sequence.
class Transfers {
public:
    Transfers(const usbd_host &host, Endpoint endpoint)
        : context_(host.context),
          handle_(host.handle),
          endpoint_(endpoint),
          size_(std::clamp(host.transferSize, kMinTransferSize, kMaxTransferSize)),
          slots_(size_t(std::clamp(host.transfersInFlight, 1, kMaxTransfersInFlight)))
    {
        // Whole packets per transfer, so that only the end of the data makes a short packet.
        if (endpoint_.maxPacketSize != 0)
            size_ -= size_ % endpoint_.maxPacketSize;
        for (Slot &slot : slots_) {
            slot.transfer = libusb_alloc_transfer(0);
            slot.buffer.reset(new (std::nothrow) uint8_t[size_]);
            if (slot.transfer && slot.buffer)
                free_.push_back(&slot);
        }
    }

    ~Transfers()
    {
        // Nothing may be in flight here: the stream ran to the end before.
        for (Slot &slot : slots_)
            libusb_free_transfer(slot.transfer);
    }

    bool ok() const { return free_.size() == slots_.size(); }
    size_t size() const { return size_; }
    bool idle() const { return order_.empty(); }
    Slot *freeSlot() { return free_.empty() ? nullptr : free_.front(); }

    int submit(Slot *slot, size_t length)
    {
        libusb_fill_bulk_transfer(slot->transfer, handle_, endpoint_.address, slot->buffer.get(),
                                  int(length), onTransferDone, slot, 0);
        slot->completed = false;
        const int rc = libusb_submit_transfer(slot->transfer);
        if (rc == LIBUSB_SUCCESS) {
            free_.pop_front();
            order_.push_back(slot);
            inFlightBytes_ += length;
        }
        return rc;
    }

    // The kernel could not find memory for a transfer this big: halve it, in whole packets.
    bool shrink()
    {
        if (size_ / 2 < kMinTransferSize)
            return false;
        size_ /= 2;
        if (endpoint_.maxPacketSize != 0)
            size_ -= size_ % endpoint_.maxPacketSize;
        return true;
    }

    uint64_t inFlightBytes() const { return inFlightBytes_; }

    void wait()
    {
        timeval tick{0, long(std::chrono::microseconds(kTick).count())};
        libusb_handle_events_timeout_completed(context_, &tick, nullptr);
    }

    // The oldest transfer once it has come back; the caller hands it to release() when done.
    Slot *completedHead()
    {
        return !order_.empty() && order_.front()->completed ? order_.front() : nullptr;
    }

    void release(Slot *slot)
    {
        order_.pop_front();
        inFlightBytes_ -= uint64_t(slot->transfer->length);
        free_.push_back(slot);
    }

    // Newest first: a transfer behind another has not started while the one ahead is still
    // open, so whatever the cancelled transfers hold is one unbroken run of bytes.
    void cancelAll()
    {
        for (auto it = order_.rbegin(); it != order_.rend(); ++it) {
            if (!(*it)->completed)
                libusb_cancel_transfer((*it)->transfer);
        }
    }

private:
    libusb_context *context_;
    libusb_device_handle *handle_;
    Endpoint endpoint_;
    size_t size_;
    std::vector<Slot> slots_; // never resized: libusb holds pointers into it
    std::deque<Slot *> free_;
    std::deque<Slot *> order_;
    uint64_t inFlightBytes_ = 0;
};

std::string hex(uint8_t address)
{
    char text[8];
    std::snprintf(text, sizeof(text), "0x%02x", address);
    return text;
}

// The outcome of one transfer that came back; OK when its bytes count. *failed is set for a
// transfer that failed without a reason of its own (it may have been the device leaving).
usbd_host_status transferStatus(const libusb_transfer &transfer, std::string *message, bool *failed)
{
    const std::string endpoint = hex(transfer.endpoint);
    switch (transfer.status) {
    case LIBUSB_TRANSFER_COMPLETED:
    case LIBUSB_TRANSFER_CANCELLED:
    case LIBUSB_TRANSFER_TIMED_OUT:
        return USBD_HOST_OK;
    case LIBUSB_TRANSFER_NO_DEVICE:
        *message = "the device left the bus";
        return USBD_HOST_GONE;
    case LIBUSB_TRANSFER_STALL:
        *message = "the device stalled endpoint " + endpoint;
        return USBD_HOST_FAILED;
    case LIBUSB_TRANSFER_OVERFLOW:
        *message = "the device sent more than asked for on endpoint " + endpoint;
        return USBD_HOST_FAILED;
    default:
        *message = "transfer on endpoint " + endpoint + " failed";
        *failed = true;
        return USBD_HOST_FAILED;
    }
}

// Ticks, progress and the reasons to end, shared by both directions.
class StreamState {
public:
    explicit StreamState(usbd_host &host) : host_(host), start_(Clock::now()), lastMoved_(start_)
    {
        host_.streamBytes = 0;
        host_.streamSeconds = 0;
        host_.streamDiscarded = 0;
    }

    bool stopping() const { return stopping_; }

    // Whether the bytes of transfers still to come back are left out: once the caller has
    // stopped taking them, or once a transfer failed in a way that can lose bytes (a stall, an
    // overflow, an error), after which later bytes would not follow on from those taken. Any
    // other end keeps them: the transfers still out were submitted before it and the endpoint
    // fills them in order. (A device that leaves can hand back a full transfer after a new one
    // has already failed to submit; its bytes arrived before it left.)
    bool broken() const { return refused_ || lost_; }

    // The first reason to end wins; later ones (the cancellations it causes) are consequences.
    void end(usbd_host_status status, std::string message, Transfers &transfers)
    {
        if (status == USBD_HOST_STOPPED)
            refused_ = true;
        if (!stopping_) {
            stopping_ = true;
            status_ = status;
            message_ = std::move(message);
        }
        transfers.cancelAll();
    }

    // A transfer came back failed: it ends the stream, and bytes may be missing after its own.
    void transferFailed(usbd_host_status status, std::string message, Transfers &transfers)
    {
        if (status == USBD_HOST_FAILED)
            lost_ = true;
        end(status, std::move(message), transfers);
    }

    // A transfer that could not even be submitted ends the stream: `doing` says what was tried.
    void submitFailed(int rc, const char *doing, Transfers &transfers)
    {
        if (rc == LIBUSB_ERROR_NO_DEVICE)
            end(USBD_HOST_GONE, "the device left the bus", transfers);
        else
            end(USBD_HOST_FAILED,
                std::string("cannot ") + doing + " the device: " + libusb_strerror(rc), transfers);
    }

    void moved(uint64_t bytes)
    {
        host_.streamBytes += bytes;
        lastMoved_ = Clock::now();
    }

    void discarded(uint64_t bytes) { host_.streamDiscarded += bytes; }
    uint64_t bytes() const { return host_.streamBytes; }

    // After every tick: the caller's interruption, the idle time-out, progress.
    void checkTick(Transfers &transfers)
    {
        const auto now = Clock::now();
        if (!stopping_ && interrupted(&host_))
            end(USBD_HOST_INTERRUPTED, "interrupted", transfers);
        if (!stopping_ && host_.idleTimeoutMs > 0
            && now - lastMoved_ >= std::chrono::milliseconds(host_.idleTimeoutMs))
            end(USBD_HOST_TIMEOUT,
                "nothing moved for " + std::to_string(host_.idleTimeoutMs) + " ms", transfers);
        if (host_.progress && now - lastProgress_ >= kTick) {
            lastProgress_ = now;
            host_.progress(host_.streamBytes, std::chrono::duration<double>(now - start_).count(),
                           host_.progressUser);
        }
    }

    usbd_host_status finishStream()
    {
        host_.streamSeconds =
            host_.streamBytes ? std::chrono::duration<double>(lastMoved_ - start_).count() : 0;
        return finish(&host_, status_, message_);
    }

private:
    usbd_host &host_;
    Clock::time_point start_;
    Clock::time_point lastMoved_;
    Clock::time_point lastProgress_{};
    bool stopping_ = false;
    bool refused_ = false;
    bool lost_ = false;
    usbd_host_status status_ = USBD_HOST_OK;
    std::string message_;
};

// The loop both directions share. `fill(slot)` submits one free slot and returns false when no
// more should go out for now; `take(length, buffer)` sees each completed transfer's bytes
// (unless the stream broke, see StreamState::broken) before its slot is released. A transfer
// that ends badly ends the stream; the transfers still in flight are then cancelled and
// waited for.
template <typename Fill, typename Take>
usbd_host_status pump(Transfers &transfers, StreamState &state, Fill fill, Take take,
                      bool *transferFailed)
{
    for (;;) {
        while (!state.stopping()) {
            Slot *slot = transfers.freeSlot();
            if (!slot || !fill(slot))
                break;
        }
        if (transfers.idle())
            break;
        transfers.wait();

        while (Slot *slot = transfers.completedHead()) {
            const libusb_transfer &transfer = *slot->transfer;
            if (transfer.actual_length > 0 && !state.broken())
                take(size_t(transfer.actual_length), slot->buffer.get());
            std::string message;
            const usbd_host_status status = transferStatus(transfer, &message, transferFailed);
            transfers.release(slot);
            if (status != USBD_HOST_OK)
                state.transferFailed(status, message, transfers);
        }
        state.checkTick(transfers);
    }
    return state.finishStream();
}

// Whether the open device has left the bus. A controller that loses its device (dummy_hcd
// when the gadget is unbound, a hub at a reset) may fail the transfers in flight with a
// protocol error before the kernel reports the device gone; a standard GET_STATUS tells the two
// apart once the hub has caught up.
bool deviceLeft(libusb_device_handle *handle, const usbd_host *host)
{
    const auto until = Clock::now() + kGoneCheckTime;
    for (;;) {
        unsigned char status[2];
        const int rc = libusb_control_transfer(
            handle, LIBUSB_ENDPOINT_IN | LIBUSB_REQUEST_TYPE_STANDARD | LIBUSB_RECIPIENT_DEVICE,
            LIBUSB_REQUEST_GET_STATUS, 0, 0, status, sizeof(status), 100);
        if (rc == LIBUSB_ERROR_NO_DEVICE)
            return true;
        if (rc >= 0 || Clock::now() >= until || interrupted(host))
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

// A stream that broke off with a failed transfer ends with USBD_HOST_GONE when that was the
// device leaving: a caller that follows the device opens it again then.
usbd_host_status goneOrAsIs(usbd_host *host, usbd_host_status status, bool transferFailed)
{
    if (status == USBD_HOST_FAILED && transferFailed && deviceLeft(host->handle, host))
        return finish(host, USBD_HOST_GONE, "the device left the bus");
    return status;
}

// A stream needs an open device and the buffers for its transfers.
bool readyToStream(usbd_host *host, const Transfers &transfers, usbd_host_status *status)
{
    if (!host->handle) {
        *status = finish(host, USBD_HOST_FAILED, "no device is open");
        return false;
    }
    if (!transfers.ok()) {
        *status = finish(host, USBD_HOST_FAILED, "cannot allocate USB transfers");
        return false;
    }
    return true;
}

usbd_host_status openOnce(usbd_host *host, bool *retry)
{
    *retry = false;
    Found found;
    usbd_host_status status = find(host, &found);
    if (status != USBD_HOST_OK)
        return status;
    if (found.candidates.size() > 1) {
        std::string error = "several devices carry the function:";
        for (const Candidate &candidate : found.candidates)
            error += " " + toString(candidate.info.location);
        return finish(host, USBD_HOST_AMBIGUOUS, error + "; choose one by its bus and address");
    }
    Candidate &candidate = found.candidates.front();
    const BusAddress location = candidate.info.location;

    libusb_device_handle *raw = nullptr;
    int rc = libusb_open(candidate.device.get(), &raw);
    // While waiting, a device that left again may be re-enumerating: look again.
    if (host->wait && rc == LIBUSB_ERROR_NO_DEVICE) {
        *retry = true;
        return USBD_HOST_GONE;
    }
    if (rc != LIBUSB_SUCCESS) {
        if (rc == LIBUSB_ERROR_ACCESS)
            return finish(host, USBD_HOST_ACCESS_DENIED, permissionMessage(candidate.info));
        return finish(host, statusOf(rc),
                      "cannot open " + toString(location) + ": " + libusb_strerror(rc));
    }

    host->handle = raw;
    host->opened = std::move(candidate.info);
    readStrings(raw, candidate.descriptor, &host->opened);
    found.candidates.clear();
    host->context = found.context.release();

    const FunctionInterface &function = host->opened.function;
    // Not every platform can detach a kernel driver; the claim below says what matters.
    libusb_set_auto_detach_kernel_driver(raw, 1);
    rc = libusb_claim_interface(raw, function.interfaceNumber);
    if (rc != LIBUSB_SUCCESS) {
        std::string error;
        if (rc == LIBUSB_ERROR_BUSY)
            error = "interface " + std::to_string(function.interfaceNumber) + " of "
                    + toString(location) + " is in use by another program";
        else if (rc == LIBUSB_ERROR_ACCESS)
            error = permissionMessage(host->opened);
        else
            error = "cannot claim interface " + std::to_string(function.interfaceNumber) + " of "
                    + toString(location) + ": " + libusb_strerror(rc);
        closeDevice(host);
        return finish(host, statusOf(rc), error);
    }
    host->claimed = true;
    if (function.alternateSetting != 0) {
        rc = libusb_set_interface_alt_setting(raw, function.interfaceNumber,
                                              function.alternateSetting);
        if (rc != LIBUSB_SUCCESS) {
            const std::string error = "cannot select alternate setting "
                                      + std::to_string(function.alternateSetting) + " of "
                                      + toString(location) + ": " + libusb_strerror(rc);
            closeDevice(host);
            return finish(host, statusOf(rc), error);
        }
    }
    return finish(host, USBD_HOST_OK);
}

} // namespace

extern "C" {

const char *usbd_host_version(void)
{
    return USBD_HOST_LIBRARY_VERSION;
}

const char *usbd_host_status_name(usbd_host_status status)
{
    switch (status) {
    case USBD_HOST_OK:
        return "ok";
    case USBD_HOST_NOT_FOUND:
        return "not found";
    case USBD_HOST_AMBIGUOUS:
        return "ambiguous";
    case USBD_HOST_ACCESS_DENIED:
        return "access denied";
    case USBD_HOST_BUSY:
        return "busy";
    case USBD_HOST_GONE:
        return "gone";
    case USBD_HOST_TIMEOUT:
        return "timeout";
    case USBD_HOST_INTERRUPTED:
        return "interrupted";
    case USBD_HOST_STOPPED:
        return "stopped";
    case USBD_HOST_FAILED:
        return "failed";
    }
    return "unknown";
}

usbd_host *usbd_host_new(void)
{
    return new (std::nothrow) usbd_host;
}

void usbd_host_free(usbd_host *host)
{
    if (!host)
        return;
    closeDevice(host);
    delete host;
}

void usbd_host_select(usbd_host *host, uint8_t bus, uint8_t address)
{
    if (bus == 0 && address == 0)
        host->only.reset();
    else
        host->only = BusAddress{bus, address};
}

int usbd_host_parse_address(const char *text, uint8_t *bus, uint8_t *address)
{
    const auto parsed = text ? usbd::host::parseBusAddress(text) : std::nullopt;
    if (!parsed)
        return -1;
    *bus = parsed->bus;
    *address = parsed->address;
    return 0;
}

void usbd_host_set_wait(usbd_host *host, int wait)
{
    host->wait = wait != 0;
}

void usbd_host_set_idle_timeout(usbd_host *host, unsigned milliseconds)
{
    host->idleTimeoutMs =
        int(std::min<unsigned>(milliseconds, unsigned(std::numeric_limits<int>::max())));
}

void usbd_host_set_transfers(usbd_host *host, size_t size, unsigned in_flight)
{
    host->transferSize = size;
    host->transfersInFlight = int(std::min<unsigned>(in_flight, unsigned(kMaxTransfersInFlight)));
}

void usbd_host_set_progress(usbd_host *host, usbd_host_progress_fn progress, void *user)
{
    host->progress = progress;
    host->progressUser = user;
}

void usbd_host_interrupt(usbd_host *host)
{
    host->interruptRequested.store(true);
}

const char *usbd_host_error(const usbd_host *host)
{
    return host->error.c_str();
}

uint8_t usbd_host_device_bus(const usbd_host_device *device)
{
    return device->location.bus;
}

uint8_t usbd_host_device_address(const usbd_host_device *device)
{
    return device->location.address;
}

uint16_t usbd_host_device_vendor_id(const usbd_host_device *device)
{
    return device->vendorId;
}

uint16_t usbd_host_device_product_id(const usbd_host_device *device)
{
    return device->productId;
}

const char *usbd_host_device_speed(const usbd_host_device *device)
{
    return usbd::host::speedName(device->speed);
}

uint8_t usbd_host_device_configuration(const usbd_host_device *device)
{
    return device->configurationValue;
}

unsigned usbd_host_device_max_power(const usbd_host_device *device)
{
    return device->maxPowerMilliamps;
}

uint8_t usbd_host_device_interface(const usbd_host_device *device)
{
    return device->function.interfaceNumber;
}

uint8_t usbd_host_device_alternate_setting(const usbd_host_device *device)
{
    return device->function.alternateSetting;
}

unsigned usbd_host_device_endpoint_count(const usbd_host_device *device)
{
    return unsigned(device->function.endpoints.size());
}

uint8_t usbd_host_device_endpoint(const usbd_host_device *device, unsigned index)
{
    return index < device->function.endpoints.size() ? device->function.endpoints[index].address
                                                     : 0;
}

uint8_t usbd_host_device_in_endpoint(const usbd_host_device *device)
{
    return device->function.in.address;
}

uint8_t usbd_host_device_out_endpoint(const usbd_host_device *device)
{
    return device->function.out.address;
}

unsigned usbd_host_device_max_packet(const usbd_host_device *device, uint8_t endpoint)
{
    for (const Endpoint &candidate : device->function.endpoints) {
        if (candidate.address == endpoint)
            return candidate.maxPacketSize;
    }
    return 0;
}

const char *usbd_host_device_string(const usbd_host_device *device, usbd_host_string which)
{
    const int index = int(which);
    return index >= 0 && index < 4 ? device->strings[index].c_str() : "";
}

const char *usbd_host_device_strings_error(const usbd_host_device *device)
{
    return device->stringsError.c_str();
}

usbd_host_status usbd_host_list_devices(usbd_host *host, usbd_host_list **list)
{
    *list = nullptr;
    return guarded(host, [&] {
        Found found;
        const usbd_host_status status = find(host, &found);
        if (status != USBD_HOST_OK)
            return status;
        auto result = std::make_unique<usbd_host_list>();
        for (Candidate &candidate : found.candidates) {
            libusb_device_handle *raw = nullptr;
            const int rc = libusb_open(candidate.device.get(), &raw);
            if (rc == LIBUSB_SUCCESS) {
                const HandlePtr handle(raw);
                readStrings(handle.get(), candidate.descriptor, &candidate.info);
            } else if (rc == LIBUSB_ERROR_ACCESS) {
                candidate.info.stringsError = permissionMessage(candidate.info);
            } else {
                candidate.info.stringsError =
                    std::string("cannot open the device: ") + libusb_strerror(rc);
            }
            result->devices.push_back(std::move(candidate.info));
        }
        *list = result.release();
        return finish(host, USBD_HOST_OK);
    });
}

size_t usbd_host_list_count(const usbd_host_list *list)
{
    return list ? list->devices.size() : 0;
}

const usbd_host_device *usbd_host_list_get(const usbd_host_list *list, size_t index)
{
    return list && index < list->devices.size() ? &list->devices[index] : nullptr;
}

void usbd_host_list_free(usbd_host_list *list)
{
    delete list;
}

usbd_host_status usbd_host_open(usbd_host *host)
{
    closeDevice(host);
    return guarded(host, [&] {
        std::optional<Clock::time_point> deniedSince;
        for (;;) {
            if (interrupted(host))
                return finish(host, USBD_HOST_INTERRUPTED,
                              "interrupted while waiting for the device");
            bool retry = false;
            const usbd_host_status status = openOnce(host, &retry);
            // While waiting, a refusal may be passing too: udev has not applied its rule yet.
            // Try again, for a while.
            if (host->wait && status == USBD_HOST_ACCESS_DENIED) {
                if (!deniedSince)
                    deniedSince = Clock::now();
                retry = Clock::now() - *deniedSince < kPermissionGrace;
            }
            if (!retry)
                return status;
            sleepFor(std::chrono::milliseconds(250), host);
        }
    });
}

const usbd_host_device *usbd_host_opened(const usbd_host *host)
{
    return host->handle ? &host->opened : nullptr;
}

void usbd_host_close(usbd_host *host)
{
    closeDevice(host);
}

usbd_host_status usbd_host_receive(usbd_host *host, uint64_t limit, usbd_host_sink_fn sink,
                                   void *user)
{
    return guarded(host, [&] {
        const Endpoint endpoint = host->opened.function.in;
        Transfers transfers(*host, endpoint);
        usbd_host_status status;
        if (!readyToStream(host, transfers, &status))
            return status;
        StreamState state(*host);
        uint64_t received = 0; // also counts bytes past the limit: they were asked for

        auto fill = [&](Slot *slot) {
            for (;;) {
                const size_t length =
                    usbd::host::nextReceiveLength(limit, received + transfers.inFlightBytes(),
                                                  transfers.size(), endpoint.maxPacketSize);
                if (length == 0)
                    return false;
                const int rc = transfers.submit(slot, length);
                if (rc == LIBUSB_ERROR_NO_MEM && transfers.shrink())
                    continue; // the same slot, smaller
                if (rc != LIBUSB_SUCCESS) {
                    state.submitFailed(rc, "read from", transfers);
                    return false;
                }
                return true;
            }
        };
        auto take = [&](size_t got, const uint8_t *data) {
            received += got;
            const uint64_t room = limit ? limit - state.bytes() : got;
            const size_t keep = size_t(std::min<uint64_t>(got, room));
            state.discarded(got - keep);
            if (keep > 0 && sink && !sink(data, keep, user))
                state.end(USBD_HOST_STOPPED, "the receiver stopped", transfers);
            state.moved(keep);
            if (limit && state.bytes() >= limit)
                state.end(USBD_HOST_OK, std::string(), transfers);
        };
        bool transferFailed = false;
        const usbd_host_status ended = pump(transfers, state, fill, take, &transferFailed);
        return goneOrAsIs(host, ended, transferFailed);
    });
}

usbd_host_status usbd_host_send(usbd_host *host, usbd_host_source_fn source, usbd_host_sent_fn sent,
                                void *user)
{
    return guarded(host, [&] {
        Transfers transfers(*host, host->opened.function.out);
        usbd_host_status status;
        if (!readyToStream(host, transfers, &status))
            return status;
        StreamState state(*host);
        bool atEnd = false;

        auto fill = [&](Slot *slot) {
            if (atEnd)
                return false;
            // Full transfers only until the end, so that no short packet splits the data early.
            size_t filled = 0;
            while (filled < transfers.size()) {
                const long count =
                    source(slot->buffer.get() + filled, transfers.size() - filled, user);
                if (count < 0) {
                    state.end(USBD_HOST_STOPPED, "the sender stopped", transfers);
                    return false;
                }
                if (count == 0) {
                    atEnd = true;
                    break;
                }
                filled += size_t(count);
            }
            if (filled == 0)
                return false;
            const int rc = transfers.submit(slot, filled);
            if (rc != LIBUSB_SUCCESS) {
                state.submitFailed(rc, "write to", transfers);
                return false;
            }
            return true;
        };
        auto take = [&](size_t length, const uint8_t *data) {
            if (sent)
                sent(data, length, user);
            state.moved(uint64_t(length));
        };
        bool transferFailed = false;
        const usbd_host_status ended = pump(transfers, state, fill, take, &transferFailed);
        return goneOrAsIs(host, ended, transferFailed);
    });
}

uint64_t usbd_host_stream_bytes(const usbd_host *host)
{
    return host->streamBytes;
}

double usbd_host_stream_seconds(const usbd_host *host)
{
    return host->streamSeconds;
}

uint64_t usbd_host_stream_discarded(const usbd_host *host)
{
    return host->streamDiscarded;
}

} // extern "C"
