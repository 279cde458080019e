#include "arvo.h"

#include <atomic>

#include <QDebug>
#include <QMutex>
#include <QMutexLocker>
#include <QString>

namespace arvo {

const char *const kIonDevicePath = "/dev/ion";

namespace {

std::atomic<bool> initialised{false};
// Handed to the HAL by initialise(): an empty device table (its first entry ends it).
const void *const kEmptyDeviceTable[8] = {};

QMutex &initMutex()
{
    static QMutex mutex;
    return mutex;
}

void ensureInitialised()
{
    if (!initialised.load(std::memory_order_acquire))
        initialise();
}

bool readState(arvo_hal_handle_t handle, uint8_t *state)
{
    const int result = arvo_hal_device_get_state(handle, state);
    if (result != 0) {
        qCritical() << "arvo_hal_device_get_state:" << result;
        return false;
    }
    return true;
}

} // namespace

bool initialise()
{
    QMutexLocker locker(&initMutex());
    // Checked again under the lock: two threads may both have seen the flag unset.
    if (!initialised.load(std::memory_order_relaxed)) {
        const int result = arvo_hal_initialize(kEmptyDeviceTable);
        if (result != 0)
            qFatal("arvo_hal_initialize: %d\n", result);
        initialised.store(true, std::memory_order_release);
    }
    return true;
}

bool isInitialised()
{
    return initialised.load(std::memory_order_acquire);
}

ArvoDevicePtr deviceOpen(const char *name, void *param)
{
    ensureInitialised();
    arvo_hal_handle_t handle = 0;
    const int result = arvo_hal_device_open(name, param, &handle);
    if (result != 0 && result != ARVO_HAL_ERR_ALREADY_OPEN) {
        qCritical() << "arvo_hal_device_open:" << result
                    << ", name:" << QString::fromUtf8(name ? name : "");
        return {};
    }
    return ArvoDevicePtr(new ArvoDevice(handle));
}

bool deviceClose(arvo_hal_handle_t handle)
{
    if (!isInitialised())
        return false;
    const int result = arvo_hal_device_close(handle);
    if (result != 0) {
        qCritical() << "arvo_hal_device_close:" << result;
        return false;
    }
    return true;
}

bool deviceStart(arvo_hal_handle_t handle, void *param)
{
    ensureInitialised();
    uint8_t state = 0;
    if (!readState(handle, &state))
        return false;
    if (state == ARVO_HAL_DEVICE_RUNNING)
        return true;
    const int result = arvo_hal_device_start(handle, param);
    if (result != 0) {
        qCritical() << "arvo_hal_device_start:" << result;
        return false;
    }
    return true;
}

bool deviceStop(arvo_hal_handle_t handle, void *param)
{
    ensureInitialised();
    uint8_t state = 0;
    if (!readState(handle, &state))
        return false;
    if (state != ARVO_HAL_DEVICE_RUNNING) {
        qWarning() << "Device was not running";
        return true;
    }
    const int result = arvo_hal_device_stop(handle, param);
    if (result != 0) {
        qCritical() << "arvo_hal_device_stop:" << result;
        return false;
    }
    return true;
}

ArvoDevice::~ArvoDevice()
{
    if (handle_ != 0)
        deviceClose(handle_);
}

bool ArvoDevice::start(void *param)
{
    return handle_ != 0 && deviceStart(handle_, param);
}

bool ArvoDevice::stop(void *param)
{
    return handle_ != 0 && deviceStop(handle_, param);
}

} // namespace arvo
