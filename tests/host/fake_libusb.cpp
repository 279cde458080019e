#include "fake_libusb.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <set>
#include <thread>

struct libusb_context {};

struct libusb_device_handle {
    libusb_device *device;
};

namespace {

std::vector<std::shared_ptr<libusb_device>> theBus;
std::deque<libusb_transfer *> inFlight;
std::set<libusb_transfer *> cancelled;
std::vector<libusb_transfer *> late; // ended, handed back at the next event handling
int contexts = 0;
int scanCount = 0;

// The configuration as libusb hands it out, with the arrays it points into.
struct OwnedConfig {
    libusb_config_descriptor config{};
    libusb_interface interface {
    };
    libusb_interface_descriptor setting{};
    libusb_endpoint_descriptor endpoints[4]{};
};

libusb_device *deviceOf(const libusb_transfer *transfer)
{
    return transfer->dev_handle->device;
}

bool onBus(const libusb_device *device)
{
    return std::any_of(theBus.begin(), theBus.end(),
                       [&](const auto &d) { return d.get() == device; });
}

void complete(libusb_transfer *transfer, libusb_transfer_status status,
              std::vector<libusb_transfer *> *done)
{
    transfer->status = status;
    inFlight.erase(std::find(inFlight.begin(), inFlight.end(), transfer));
    cancelled.erase(transfer);
    done->push_back(transfer);
}

libusb_transfer *head(libusb_device *device, bool in)
{
    for (libusb_transfer *transfer : inFlight) {
        if (deviceOf(transfer) == device && bool(transfer->endpoint & LIBUSB_ENDPOINT_IN) == in)
            return transfer;
    }
    return nullptr;
}

// Moves what can move and returns the transfers that ended, in the order the bus ends them.
std::vector<libusb_transfer *> step()
{
    std::vector<libusb_transfer *> done;
    for (libusb_transfer *transfer :
         std::vector<libusb_transfer *>(cancelled.begin(), cancelled.end()))
        complete(transfer, LIBUSB_TRANSFER_CANCELLED, &done);

    for (const auto &shared : std::vector<std::shared_ptr<libusb_device>>(theBus)) {
        libusb_device *device = shared.get();
        bool gone = false;
        while (libusb_transfer *in = head(device, true)) {
            bool ended = false;
            while (!device->packets.empty() && !ended) {
                if (device->goneAfter != 0 && device->delivered >= device->goneAfter) {
                    gone = true;
                    break;
                }
                std::vector<uint8_t> &packet = device->packets.front();
                const size_t room = size_t(in->length - in->actual_length);
                if (packet.size() > room) {
                    complete(in, LIBUSB_TRANSFER_OVERFLOW, &done);
                    ended = true;
                    break;
                }
                std::memcpy(in->buffer + in->actual_length, packet.data(), packet.size());
                in->actual_length += int(packet.size());
                device->delivered += packet.size();
                const bool shortPacket = packet.size() < device->packet;
                device->packets.pop_front();
                if (shortPacket || in->actual_length == in->length) {
                    complete(in, LIBUSB_TRANSFER_COMPLETED, &done);
                    ended = true;
                }
            }
            if (!ended)
                break;
        }
        if (device->goneAfter != 0 && device->delivered >= device->goneAfter)
            gone = true;
        while (libusb_transfer *out = head(device, false)) {
            const size_t room = size_t(out->length - out->actual_length);
            const size_t take =
                std::min<uint64_t>(room, device->outCapacity - device->outData.size());
            device->outData.insert(device->outData.end(), out->buffer + out->actual_length,
                                   out->buffer + out->actual_length + take);
            out->actual_length += int(take);
            if (out->actual_length < out->length)
                break;
            complete(out, LIBUSB_TRANSFER_COMPLETED, &done);
        }
        if (gone) {
            const auto status =
                device->goneAsError ? LIBUSB_TRANSFER_ERROR : LIBUSB_TRANSFER_NO_DEVICE;
            if (device->lateLastCompletion) {
                const auto last = std::find_if(done.rbegin(), done.rend(), [&](libusb_transfer *t) {
                    return deviceOf(t) == device && t->actual_length > 0;
                });
                if (last != done.rend()) {
                    late.push_back(*last);
                    done.erase(std::next(last).base());
                }
            }
            while (libusb_transfer *transfer = head(device, true))
                complete(transfer, status, &late);
            while (libusb_transfer *transfer = head(device, false))
                complete(transfer, status, &done);
            theBus.erase(std::find(theBus.begin(), theBus.end(), shared));
        }
    }
    return done;
}

} // namespace

void libusb_device::write(const std::vector<uint8_t> &data)
{
    for (size_t at = 0; at < data.size(); at += packet)
        packets.emplace_back(data.begin() + long(at),
                             data.begin() + long(std::min<size_t>(at + packet, data.size())));
}

namespace fakeusb {

std::vector<std::shared_ptr<libusb_device>> &bus()
{
    return theBus;
}

int openContexts()
{
    return contexts;
}

int scans()
{
    return scanCount;
}

void reset()
{
    theBus.clear();
    inFlight.clear();
    cancelled.clear();
    late.clear();
    scanCount = 0;
}

} // namespace fakeusb

extern "C" {

int LIBUSB_CALL libusb_init(libusb_context **context)
{
    ++contexts;
    *context = new libusb_context;
    return 0;
}

void LIBUSB_CALL libusb_exit(libusb_context *context)
{
    --contexts;
    delete context;
}

const char *LIBUSB_CALL libusb_strerror(int code)
{
    return code == LIBUSB_ERROR_ACCESS ? "Access denied" : "fake error";
}

int LIBUSB_CALL libusb_has_capability(uint32_t)
{
    return 0; // no hot-plug: the waiting runs on polling, as without a udev daemon
}

int LIBUSB_CALL libusb_hotplug_register_callback(libusb_context *, int, int, int, int, int,
                                                 libusb_hotplug_callback_fn, void *,
                                                 libusb_hotplug_callback_handle *)
{
    return LIBUSB_ERROR_NOT_SUPPORTED;
}

ssize_t LIBUSB_CALL libusb_get_device_list(libusb_context *, libusb_device ***list)
{
    ++scanCount;
    auto *devices = new libusb_device *[theBus.size() + 1];
    size_t count = 0;
    for (const auto &device : theBus) {
        if (scanCount > device->scansUntilPresent)
            devices[count++] = device.get();
    }
    devices[count] = nullptr;
    *list = devices;
    return ssize_t(count);
}

void LIBUSB_CALL libusb_free_device_list(libusb_device **list, int)
{
    delete[] list;
}

libusb_device *LIBUSB_CALL libusb_ref_device(libusb_device *device)
{
    return device;
}

void LIBUSB_CALL libusb_unref_device(libusb_device *)
{
}

uint8_t LIBUSB_CALL libusb_get_bus_number(libusb_device *device)
{
    return device->bus;
}

uint8_t LIBUSB_CALL libusb_get_device_address(libusb_device *device)
{
    return device->address;
}

int LIBUSB_CALL libusb_get_device_speed(libusb_device *device)
{
    return device->speed;
}

int LIBUSB_CALL libusb_get_device_descriptor(libusb_device *device,
                                             libusb_device_descriptor *descriptor)
{
    *descriptor = libusb_device_descriptor{};
    descriptor->idVendor = device->vendorId;
    descriptor->idProduct = device->productId;
    descriptor->iManufacturer = 1;
    descriptor->iProduct = 2;
    descriptor->iSerialNumber = 3;
    return 0;
}

int LIBUSB_CALL libusb_get_active_config_descriptor(libusb_device *device,
                                                    libusb_config_descriptor **config)
{
    auto *owned = new OwnedConfig;
    const uint8_t addresses[4] = {0x02, 0x07, 0x81, 0x86};
    for (int i = 0; i < 4; ++i) {
        owned->endpoints[i].bEndpointAddress = addresses[i];
        owned->endpoints[i].bmAttributes = LIBUSB_TRANSFER_TYPE_BULK;
        owned->endpoints[i].wMaxPacketSize = device->packet;
    }
    libusb_interface_descriptor &setting = owned->setting;
    setting.bNumEndpoints = 4;
    setting.bInterfaceClass = device->function ? 0xFF : 0x08;
    setting.iInterface = 4;
    setting.endpoint = owned->endpoints;
    owned->interface = libusb_interface{&setting, 1};
    owned->config.bNumInterfaces = 1;
    owned->config.bConfigurationValue = 1;
    owned->config.MaxPower = 250;
    owned->config.interface = &owned->interface;
    *config = &owned->config;
    return 0;
}

void LIBUSB_CALL libusb_free_config_descriptor(libusb_config_descriptor *config)
{
    delete reinterpret_cast<OwnedConfig *>(config);
}

int LIBUSB_CALL libusb_open(libusb_device *device, libusb_device_handle **handle)
{
    if (!onBus(device))
        return LIBUSB_ERROR_NO_DEVICE;
    if (device->openError != 0)
        return device->openError;
    *handle = new libusb_device_handle{device};
    return 0;
}

void LIBUSB_CALL libusb_close(libusb_device_handle *handle)
{
    delete handle;
}

int LIBUSB_CALL libusb_get_string_descriptor_ascii(libusb_device_handle *handle, uint8_t index,
                                                   unsigned char *data, int length)
{
    const auto &strings = handle->device->strings;
    if (index == 0 || index > strings.size())
        return LIBUSB_ERROR_PIPE;
    const std::string &text = strings[index - 1];
    const int size = std::min(int(text.size()), length - 1);
    std::memcpy(data, text.data(), size_t(size));
    data[size] = 0;
    return size;
}

// Only GET_STATUS, which the library uses to ask whether a device is still there.
int LIBUSB_CALL libusb_control_transfer(libusb_device_handle *handle, uint8_t, uint8_t request,
                                        uint16_t, uint16_t, unsigned char *data, uint16_t length,
                                        unsigned int)
{
    if (!onBus(handle->device))
        return LIBUSB_ERROR_NO_DEVICE;
    if (request != LIBUSB_REQUEST_GET_STATUS)
        return LIBUSB_ERROR_NOT_SUPPORTED;
    std::fill_n(data, length, 0);
    return length;
}

int LIBUSB_CALL libusb_set_auto_detach_kernel_driver(libusb_device_handle *, int)
{
    return 0;
}

int LIBUSB_CALL libusb_claim_interface(libusb_device_handle *handle, int)
{
    if (handle->device->claimError != 0)
        return handle->device->claimError;
    handle->device->claimed = true;
    return 0;
}

int LIBUSB_CALL libusb_release_interface(libusb_device_handle *handle, int)
{
    handle->device->claimed = false;
    return 0;
}

int LIBUSB_CALL libusb_set_interface_alt_setting(libusb_device_handle *handle, int, int setting)
{
    handle->device->alternateSetting = setting;
    return 0;
}

libusb_transfer *LIBUSB_CALL libusb_alloc_transfer(int)
{
    return new libusb_transfer{};
}

void LIBUSB_CALL libusb_free_transfer(libusb_transfer *transfer)
{
    delete transfer;
}

int LIBUSB_CALL libusb_submit_transfer(libusb_transfer *transfer)
{
    libusb_device *device = deviceOf(transfer);
    if (!onBus(device))
        return LIBUSB_ERROR_NO_DEVICE;
    if (device->submitLimit != 0 && size_t(transfer->length) > device->submitLimit)
        return LIBUSB_ERROR_NO_MEM;
    device->largestSubmit = std::max(device->largestSubmit, size_t(transfer->length));
    transfer->actual_length = 0;
    inFlight.push_back(transfer);
    return 0;
}

int LIBUSB_CALL libusb_cancel_transfer(libusb_transfer *transfer)
{
    if (std::find(inFlight.begin(), inFlight.end(), transfer) == inFlight.end())
        return LIBUSB_ERROR_NOT_FOUND;
    cancelled.insert(transfer);
    return 0;
}

int LIBUSB_CALL libusb_handle_events_timeout_completed(libusb_context *, struct timeval *, int *)
{
    std::vector<libusb_transfer *> done;
    done.swap(late);
    if (done.empty())
        done = step();
    for (libusb_transfer *transfer : done)
        transfer->callback(transfer);
    // Nothing moved: the time a real wait would pass, shortened to keep the tests quick.
    if (done.empty())
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return 0;
}

} // extern "C"
