// Device half of the stand-in HAL: initialisation and device sessions. A device is any node
// that exists on the file system; its state (stopped or running) lives only here.

#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <map>
#include <string>

#include "arvo_hal.h"
#include "arvo_hal_sim.h"
#include "hal_state.h"

namespace arvo_hal {
namespace {

const char kFailInitEnv[] = "ARVO_HAL_FAIL_INIT";

struct Device {
    dev_t dev = 0;
    ino_t ino = 0;
    uint8_t state = ARVO_HAL_DEVICE_STOPPED;
    int opens = 0; // each open, also a repeated one, is balanced by one close
};

// Guarded by halMutex().
int initDepth = 0;
int initCalls = 0;
uint32_t lastHandle = 0;
std::map<arvo_hal_handle_t, Device> devices;

// Lets a test make initialisation fail the way a broken platform would; the real HAL has no
// such switch.
bool forcedInitResult(int *result)
{
    const char *text = std::getenv(kFailInitEnv);
    if (!text || !*text)
        return false;
    errno = 0;
    char *end = nullptr;
    const long value = std::strtol(text, &end, 10);
    if (errno != 0 || *end != '\0' || value < INT_MIN || value > INT_MAX)
        return false;
    *result = static_cast<int>(value);
    return true;
}

Device *findLocked(arvo_hal_handle_t handle)
{
    const auto it = devices.find(handle);
    return it == devices.end() ? nullptr : &it->second;
}

} // namespace

std::mutex &halMutex()
{
    static std::mutex mutex;
    return mutex;
}

int checkOpenDeviceLocked(arvo_hal_handle_t handle)
{
    if (initDepth == 0)
        return ARVO_HAL_ERR_NOT_INITIALIZED;
    return findLocked(handle) ? ARVO_HAL_OK : ARVO_HAL_ERR_INVALID;
}

} // namespace arvo_hal

using namespace arvo_hal;

extern "C" {

int arvo_hal_initialize(const void * /*device_table*/)
{
    std::lock_guard<std::mutex> lock(halMutex());
    ++initCalls;
    int forced = 0;
    if (forcedInitResult(&forced) && forced != ARVO_HAL_OK)
        return forced;
    // Initialisation nests: the daemon initialises once for its device table and once more in
    // its HAL layer, and one deinitialisation must not pull devices from under the other user.
    ++initDepth;
    return ARVO_HAL_OK;
}

int arvo_hal_deinitialize(void)
{
    std::lock_guard<std::mutex> lock(halMutex());
    if (initDepth == 0)
        return ARVO_HAL_ERR_NOT_INITIALIZED;
    if (--initDepth == 0)
        devices.clear();
    return ARVO_HAL_OK;
}

int arvo_hal_attach_ion_mem(arvo_hal_handle_t /*device*/, void * /*param*/)
{
    return ARVO_HAL_OK;
}

int arvo_hal_detach_ion_mem(arvo_hal_handle_t /*device*/, void * /*param*/)
{
    return ARVO_HAL_OK;
}

int arvo_hal_device_open(const char *name, void * /*param*/, arvo_hal_handle_t *handle)
{
    if (!name || !handle)
        return ARVO_HAL_ERR_INVALID;
    std::lock_guard<std::mutex> lock(halMutex());
    if (initDepth == 0)
        return ARVO_HAL_ERR_NOT_INITIALIZED;
    struct stat st;
    if (::stat(name, &st) != 0)
        return ARVO_HAL_ERR_NOT_FOUND;
    // The node, not the spelling of its path, is the device.
    for (auto &entry : devices) {
        if (entry.second.dev == st.st_dev && entry.second.ino == st.st_ino) {
            ++entry.second.opens;
            *handle = entry.first;
            return ARVO_HAL_ERR_ALREADY_OPEN;
        }
    }
    const arvo_hal_handle_t id =
        nextId(lastHandle, [](uint32_t candidate) { return devices.count(candidate) != 0; });
    Device device;
    device.dev = st.st_dev;
    device.ino = st.st_ino;
    device.opens = 1;
    devices.emplace(id, device);
    *handle = id;
    return ARVO_HAL_OK;
}

int arvo_hal_device_get_state(arvo_hal_handle_t handle, uint8_t *state)
{
    if (!state)
        return ARVO_HAL_ERR_INVALID;
    std::lock_guard<std::mutex> lock(halMutex());
    const Device *device = findLocked(handle);
    if (!device)
        return ARVO_HAL_ERR_INVALID;
    *state = device->state;
    return ARVO_HAL_OK;
}

int arvo_hal_device_start(arvo_hal_handle_t handle, void * /*param*/)
{
    std::lock_guard<std::mutex> lock(halMutex());
    Device *device = findLocked(handle);
    if (!device)
        return ARVO_HAL_ERR_INVALID;
    device->state = ARVO_HAL_DEVICE_RUNNING;
    return ARVO_HAL_OK;
}

int arvo_hal_device_stop(arvo_hal_handle_t handle, void * /*param*/)
{
    std::lock_guard<std::mutex> lock(halMutex());
    Device *device = findLocked(handle);
    if (!device)
        return ARVO_HAL_ERR_INVALID;
    device->state = ARVO_HAL_DEVICE_STOPPED;
    return ARVO_HAL_OK;
}

int arvo_hal_device_close(arvo_hal_handle_t handle)
{
    std::lock_guard<std::mutex> lock(halMutex());
    const auto it = devices.find(handle);
    if (it == devices.end())
        return ARVO_HAL_ERR_INVALID;
    if (--it->second.opens == 0)
        devices.erase(it);
    return ARVO_HAL_OK;
}

int arvo_sim_initialize_count(void)
{
    std::lock_guard<std::mutex> lock(halMutex());
    return initCalls;
}

int arvo_sim_device_open_count(const char *name)
{
    struct stat st;
    if (!name || ::stat(name, &st) != 0)
        return 0;
    std::lock_guard<std::mutex> lock(halMutex());
    for (const auto &entry : devices) {
        if (entry.second.dev == st.st_dev && entry.second.ino == st.st_ino)
            return entry.second.opens;
    }
    return 0;
}

void arvo_sim_reset(void)
{
    std::lock_guard<std::mutex> lock(halMutex());
    resetMemoryLocked();
    devices.clear();
    initDepth = 0;
    initCalls = 0;
    lastHandle = 0;
}

} // extern "C"
