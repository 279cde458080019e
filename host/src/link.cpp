// Finding, opening and streaming to and from the function with libusb.

#include <usbd/host.h>

#include <libusb.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <deque>
#include <thread>

namespace usbd::host {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kPollInterval = std::chrono::milliseconds(500);
constexpr auto kTick = std::chrono::milliseconds(100);
// A device node appears before udev has applied its rule to it; a waiting caller gives udev
// this long before a refusal counts.
constexpr auto kPermissionGrace = std::chrono::seconds(3);
// The smallest transfer tried when the kernel cannot find memory for a larger one.
constexpr size_t kMinTransferSize = 16 * 1024;
constexpr size_t kMaxTransferSize = 64 * 1024 * 1024;
constexpr int kMaxTransfersInFlight = 16;

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
    void operator()(libusb_config_descriptor *config) const { libusb_free_config_descriptor(config); }
};
using ConfigPtr = std::unique_ptr<libusb_config_descriptor, ConfigDeleter>;

bool stopped(const StopFlag *stop)
{
    return stop != nullptr && stop->load();
}

void sleepFor(Clock::duration duration, const StopFlag *stop)
{
    const auto until = Clock::now() + duration;
    while (!stopped(stop) && Clock::now() < until)
        std::this_thread::sleep_for(std::min<Clock::duration>(kTick, until - Clock::now()));
}

Status statusOf(int libusbError)
{
    switch (libusbError) {
    case LIBUSB_SUCCESS:
        return Status::Ok;
    case LIBUSB_ERROR_ACCESS:
        return Status::AccessDenied;
    case LIBUSB_ERROR_BUSY:
        return Status::Busy;
    case LIBUSB_ERROR_NO_DEVICE:
        return Status::Gone;
    case LIBUSB_ERROR_TIMEOUT:
        return Status::Timeout;
    case LIBUSB_ERROR_INTERRUPTED:
        return Status::Interrupted;
    default:
        return Status::Failed;
    }
}

std::string nodePath(BusAddress location)
{
    std::string name = toString(location);
    name[3] = '/';
    return "/dev/bus/usb/" + name;
}

std::string permissionMessage(BusAddress location)
{
    return "permission denied opening " + nodePath(location) + ": install the udev rule " + kUdevRule
           + " (into /etc/udev/rules.d, then `udevadm control --reload && udevadm trigger`) and be in the"
             " group plugdev, or run as root";
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
    DeviceInfo info;
};

// present: whether a device sits at options.device at all, to tell "not there" from "not ours".
std::vector<Candidate> scan(libusb_context *context, const std::optional<BusAddress> &only, bool *present)
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
        auto function = findFunction(*config);
        if (!function)
            continue;
        DeviceInfo &info = candidate.info;
        info.location = location;
        info.vendorId = candidate.descriptor.idVendor;
        info.productId = candidate.descriptor.idProduct;
        info.speed = libusb_get_device_speed(device);
        info.configurationValue = config->bConfigurationValue;
        info.maxPowerMilliamps = maxPowerMilliamps(config->MaxPower, info.speed);
        info.function = std::move(*function);
        candidate.device.reset(libusb_ref_device(device));
        found.push_back(std::move(candidate));
    }
    // The list exists also when it is empty; only a failed call leaves none.
    if (count >= 0)
        libusb_free_device_list(list, 1);
    return found;
}

void readStrings(libusb_device_handle *handle, const libusb_device_descriptor &descriptor, DeviceInfo *info)
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
    read(descriptor.iManufacturer, &info->manufacturer);
    read(descriptor.iProduct, &info->product);
    read(descriptor.iSerialNumber, &info->serialNumber);
    read(info->function.stringIndex, &info->interfaceName);
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
                                                LIBUSB_HOTPLUG_MATCH_ANY, LIBUSB_HOTPLUG_MATCH_ANY, &ArrivalWatch::arrived,
                                                this, nullptr)
                   != LIBUSB_SUCCESS)
            context_.reset();
    }

    // Until a device arrives, the poll interval has passed, or the caller gives up. Polling
    // stays even with hot-plug events: they come from the udev daemon, which a minimal system
    // may not run.
    void sleep(const StopFlag *stop)
    {
        if (!context_) {
            sleepFor(kPollInterval, stop);
            return;
        }
        arrived_ = 0;
        const auto until = Clock::now() + kPollInterval;
        while (!arrived_ && !stopped(stop) && Clock::now() < until) {
            timeval tick{0, long(std::chrono::microseconds(kTick).count())};
            libusb_handle_events_timeout_completed(context_.get(), &tick, &arrived_);
        }
    }

private:
    static int LIBUSB_CALL arrived(libusb_context *, libusb_device *, libusb_hotplug_event, void *self)
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
Status find(const FindOptions &options, Found *found, std::string *error)
{
    std::unique_ptr<ArrivalWatch> watch;
    for (;;) {
        found->candidates.clear();
        found->context = makeContext(error);
        if (!found->context)
            return Status::Failed;
        bool present = false;
        found->candidates = scan(found->context.get(), options.device, &present);
        if (!found->candidates.empty())
            return Status::Ok;
        if (!options.wait) {
            if (!options.device)
                *error = "no device carrying the function (" + functionShape() + ") is attached";
            else if (present)
                *error = "device " + toString(*options.device) + " does not carry the function (" + functionShape() + ")";
            else
                *error = "no device at " + toString(*options.device);
            return Status::NotFound;
        }
        if (!watch)
            watch = std::make_unique<ArrivalWatch>();
        watch->sleep(options.stop);
        if (stopped(options.stop)) {
            *error = "interrupted while waiting for the device";
            return Status::Interrupted;
        }
    }
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
    Transfers(libusb_context *context, libusb_device_handle *handle, Endpoint endpoint, const StreamOptions &options)
        : context_(context), handle_(handle), endpoint_(endpoint),
          size_(std::clamp(options.transferSize, kMinTransferSize, kMaxTransferSize)),
          slots_(size_t(std::clamp(options.transfersInFlight, 1, kMaxTransfersInFlight)))
    {
        // Whole packets per transfer, so that only the end of the data makes a short packet.
        if (endpoint_.maxPacketSize != 0)
            size_ -= size_ % endpoint_.maxPacketSize;
        for (Slot &slot : slots_) {
            slot.transfer = libusb_alloc_transfer(0);
            slot.buffer.reset(new uint8_t[size_]);
            if (slot.transfer)
                free_.push_back(&slot);
        }
    }

    ~Transfers()
    {
        // Nothing may be in flight here: drain() ran to the end before.
        for (Slot &slot : slots_)
            libusb_free_transfer(slot.transfer);
    }

    bool ok() const { return free_.size() == slots_.size(); }
    size_t size() const { return size_; }
    bool idle() const { return order_.empty(); }
    Slot *freeSlot() { return free_.empty() ? nullptr : free_.front(); }

    int submit(Slot *slot, size_t length)
    {
        libusb_fill_bulk_transfer(slot->transfer, handle_, endpoint_.address, slot->buffer.get(), int(length),
                                  onTransferDone, slot, 0);
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
    Slot *completedHead() { return !order_.empty() && order_.front()->completed ? order_.front() : nullptr; }

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

// The outcome of one transfer that came back; Ok when its bytes count.
Status transferStatus(const libusb_transfer &transfer, std::string *message)
{
    const std::string endpoint = hex(transfer.endpoint);
    switch (transfer.status) {
    case LIBUSB_TRANSFER_COMPLETED:
    case LIBUSB_TRANSFER_CANCELLED:
    case LIBUSB_TRANSFER_TIMED_OUT:
        return Status::Ok;
    case LIBUSB_TRANSFER_NO_DEVICE:
        *message = "the device left the bus";
        return Status::Gone;
    case LIBUSB_TRANSFER_STALL:
        *message = "the device stalled endpoint " + endpoint;
        return Status::Failed;
    case LIBUSB_TRANSFER_OVERFLOW:
        *message = "the device sent more than asked for on endpoint " + endpoint;
        return Status::Failed;
    default:
        *message = "transfer on endpoint " + endpoint + " failed";
        return Status::Failed;
    }
}

// Ticks, progress and the reasons to end, shared by both directions.
class StreamState {
public:
    explicit StreamState(const StreamOptions &options) : options_(options), start_(Clock::now()), lastMoved_(start_) {}

    bool stopping() const { return stopping_; }
    bool broken() const { return result_.status != Status::Ok && result_.status != Status::Interrupted
                                 && result_.status != Status::Timeout; }

    // The first reason to end wins; later ones (the cancellations it causes) are consequences.
    void end(Status status, std::string message, Transfers &transfers)
    {
        if (!stopping_) {
            stopping_ = true;
            result_.status = status;
            result_.message = std::move(message);
        }
        transfers.cancelAll();
    }

    // A transfer that could not even be submitted ends the stream: `doing` says what was tried.
    void submitFailed(int rc, const char *doing, Transfers &transfers)
    {
        if (rc == LIBUSB_ERROR_NO_DEVICE)
            end(Status::Gone, "the device left the bus", transfers);
        else
            end(Status::Failed, std::string("cannot ") + doing + " the device: " + libusb_strerror(rc), transfers);
    }

    void moved(uint64_t bytes)
    {
        result_.bytes += bytes;
        lastMoved_ = Clock::now();
    }

    void discarded(uint64_t bytes) { result_.discarded += bytes; }
    uint64_t bytes() const { return result_.bytes; }

    // After every tick: the caller's stop flag, the idle time-out, progress.
    void checkTick(Transfers &transfers)
    {
        const auto now = Clock::now();
        if (!stopping_ && stopped(options_.stop))
            end(Status::Interrupted, "interrupted", transfers);
        if (!stopping_ && options_.idleTimeoutMs > 0
            && now - lastMoved_ >= std::chrono::milliseconds(options_.idleTimeoutMs))
            end(Status::Timeout, "nothing moved for " + std::to_string(options_.idleTimeoutMs) + " ms", transfers);
        if (options_.progress && now - lastProgress_ >= kTick) {
            lastProgress_ = now;
            options_.progress(result_.bytes, std::chrono::duration<double>(now - start_).count());
        }
    }

    StreamResult finish()
    {
        result_.seconds = result_.bytes ? std::chrono::duration<double>(lastMoved_ - start_).count() : 0;
        return result_;
    }

private:
    const StreamOptions &options_;
    Clock::time_point start_;
    Clock::time_point lastMoved_;
    Clock::time_point lastProgress_{};
    bool stopping_ = false;
    StreamResult result_;
};

StreamResult outOfMemory()
{
    StreamResult result;
    result.status = Status::Failed;
    result.message = "cannot allocate USB transfers";
    return result;
}

} // namespace

Status listDevices(const FindOptions &options, std::vector<DeviceInfo> *devices, std::string *error)
{
    devices->clear();
    Found found;
    const Status status = find(options, &found, error);
    if (status != Status::Ok)
        return status;
    for (Candidate &candidate : found.candidates) {
        libusb_device_handle *raw = nullptr;
        const int rc = libusb_open(candidate.device.get(), &raw);
        if (rc == LIBUSB_SUCCESS) {
            const HandlePtr handle(raw);
            readStrings(handle.get(), candidate.descriptor, &candidate.info);
        } else if (rc == LIBUSB_ERROR_ACCESS) {
            candidate.info.stringsError = permissionMessage(candidate.info.location);
        } else {
            candidate.info.stringsError = std::string("cannot open the device: ") + libusb_strerror(rc);
        }
        devices->push_back(std::move(candidate.info));
    }
    return Status::Ok;
}

Status Link::open(const FindOptions &options, std::unique_ptr<Link> *link, std::string *error)
{
    std::optional<Clock::time_point> deniedSince;
    for (;;) {
        if (stopped(options.stop)) {
            *error = "interrupted while waiting for the device";
            return Status::Interrupted;
        }
        Found found;
        Status status = find(options, &found, error);
        if (status != Status::Ok)
            return status;
        if (found.candidates.size() > 1) {
            *error = "several devices carry the function:";
            for (const Candidate &candidate : found.candidates)
                *error += " " + toString(candidate.info.location);
            *error += "; choose one with --device BUS:ADDR";
            return Status::Ambiguous;
        }
        Candidate &candidate = found.candidates.front();
        const BusAddress location = candidate.info.location;

        libusb_device_handle *raw = nullptr;
        int rc = libusb_open(candidate.device.get(), &raw);
        // While waiting, a refusal or a device that left again may be passing: udev has not
        // applied its rule yet, or the device re-enumerated. Try again, for a while.
        if (options.wait && rc == LIBUSB_ERROR_ACCESS) {
            if (!deniedSince)
                deniedSince = Clock::now();
            if (Clock::now() - *deniedSince < kPermissionGrace) {
                sleepFor(std::chrono::milliseconds(250), options.stop);
                continue;
            }
        }
        if (options.wait && rc == LIBUSB_ERROR_NO_DEVICE) {
            sleepFor(std::chrono::milliseconds(250), options.stop);
            continue;
        }
        if (rc != LIBUSB_SUCCESS) {
            *error = rc == LIBUSB_ERROR_ACCESS ? permissionMessage(location)
                                               : "cannot open " + toString(location) + ": " + libusb_strerror(rc);
            return statusOf(rc);
        }

        std::unique_ptr<Link> opened(new Link);
        opened->handle_ = raw;
        opened->device_ = std::move(candidate.info);
        readStrings(raw, candidate.descriptor, &opened->device_);
        found.candidates.clear();
        opened->context_ = found.context.release();

        const FunctionInterface &function = opened->device_.function;
        // Not every platform can detach a kernel driver; the claim below says what matters.
        libusb_set_auto_detach_kernel_driver(raw, 1);
        rc = libusb_claim_interface(raw, function.interfaceNumber);
        if (rc != LIBUSB_SUCCESS) {
            if (rc == LIBUSB_ERROR_BUSY)
                *error = "interface " + std::to_string(function.interfaceNumber) + " of " + toString(location)
                         + " is in use by another program";
            else if (rc == LIBUSB_ERROR_ACCESS)
                *error = permissionMessage(location);
            else
                *error = "cannot claim interface " + std::to_string(function.interfaceNumber) + " of "
                         + toString(location) + ": " + libusb_strerror(rc);
            return statusOf(rc);
        }
        opened->claimed_ = true;
        if (function.alternateSetting != 0) {
            rc = libusb_set_interface_alt_setting(raw, function.interfaceNumber, function.alternateSetting);
            if (rc != LIBUSB_SUCCESS) {
                *error = "cannot select alternate setting " + std::to_string(function.alternateSetting) + " of "
                         + toString(location) + ": " + libusb_strerror(rc);
                return statusOf(rc);
            }
        }
        *link = std::move(opened);
        return Status::Ok;
    }
}

Link::~Link()
{
    if (claimed_)
        libusb_release_interface(handle_, device_.function.interfaceNumber);
    if (handle_)
        libusb_close(handle_);
    if (context_)
        libusb_exit(context_);
}

namespace {

// The loop both directions share. `fill(slot)` submits one free slot and returns false when no
// more should go out for now; `take(transfer, buffer)` sees each completed transfer's bytes
// (unless the stream already broke) before its slot is released. A transfer that ends badly
// ends the stream; the transfers still in flight are then cancelled and waited for.
template <typename Fill, typename Take>
StreamResult pump(Transfers &transfers, StreamState &state, Fill fill, Take take)
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
            const Status status = transferStatus(transfer, &message);
            transfers.release(slot);
            if (status != Status::Ok)
                state.end(status, message, transfers);
        }
        state.checkTick(transfers);
    }
    return state.finish();
}

} // namespace

StreamResult Link::receive(const StreamOptions &options, const std::function<bool(const uint8_t *, size_t)> &sink)
{
    const Endpoint endpoint = device_.function.in;
    Transfers transfers(context_, handle_, endpoint, options);
    StreamState state(options);
    if (!transfers.ok())
        return outOfMemory();
    uint64_t received = 0; // also counts bytes past the limit: they were asked for

    auto fill = [&](Slot *slot) {
        for (;;) {
            const size_t length = nextReceiveLength(options.limit, received + transfers.inFlightBytes(),
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
        const uint64_t room = options.limit ? options.limit - state.bytes() : got;
        const size_t keep = size_t(std::min<uint64_t>(got, room));
        state.discarded(got - keep);
        if (keep > 0 && !sink(data, keep))
            state.end(Status::Stopped, std::string(), transfers);
        state.moved(keep);
        if (options.limit && state.bytes() >= options.limit)
            state.end(Status::Ok, std::string(), transfers);
    };
    return pump(transfers, state, fill, take);
}

StreamResult Link::send(const StreamOptions &options, const std::function<long(uint8_t *, size_t)> &source,
                        const std::function<void(const uint8_t *, size_t)> &sent)
{
    Transfers transfers(context_, handle_, device_.function.out, options);
    StreamState state(options);
    if (!transfers.ok())
        return outOfMemory();
    bool atEnd = false;

    auto fill = [&](Slot *slot) {
        if (atEnd)
            return false;
        // Full transfers only until the end, so that no short packet splits the data early.
        size_t filled = 0;
        while (filled < transfers.size()) {
            const long count = source(slot->buffer.get() + filled, transfers.size() - filled);
            if (count < 0) {
                state.end(Status::Stopped, std::string(), transfers);
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
            sent(data, length);
        state.moved(uint64_t(length));
    };
    return pump(transfers, state, fill, take);
}

} // namespace usbd::host
