#pragma once

#include <QSharedPointer>

#include <arvo_hal.h>

// The daemon's layer over the platform HAL: a once-per-process initialisation and owned
// device handles. Every HAL failure is logged with the HAL's result code.
namespace arvo {

// Path of the ION allocator node.
extern const char *const kIonDevicePath;

class ArvoDevice;
using ArvoDevicePtr = QSharedPointer<ArvoDevice>;

// Initialises the HAL once per process; a HAL failure ends the process.
bool initialise();
bool isInitialised();

ArvoDevicePtr deviceOpen(const char *name, void *param);
bool deviceClose(arvo_hal_handle_t handle);
bool deviceStart(arvo_hal_handle_t handle, void *param);
bool deviceStop(arvo_hal_handle_t handle, void *param);

// One open HAL device; closed when the last ArvoDevicePtr to it goes.
class ArvoDevice {
public:
    explicit ArvoDevice(arvo_hal_handle_t handle) : handle_(handle) {}
    ~ArvoDevice();
    ArvoDevice(const ArvoDevice &) = delete;
    ArvoDevice &operator=(const ArvoDevice &) = delete;

    arvo_hal_handle_t handle() const { return handle_; }
    bool start(void *param);
    bool stop(void *param);

private:
    arvo_hal_handle_t handle_;
};

} // namespace arvo

using arvo::ArvoDevice;
using arvo::ArvoDevicePtr;
