#pragma once

// State shared by the device and memory halves of the stand-in HAL. One mutex guards both, so
// a memory call sees a consistent view of the open devices.

#include <mutex>

#include "arvo_hal.h"

namespace arvo_hal {

std::mutex &halMutex();

// ARVO_HAL_OK when `handle` is an open device, else the code a memory call answers with.
// Caller holds halMutex().
int checkOpenDeviceLocked(arvo_hal_handle_t handle);

// Unmaps and frees every memory object. Caller holds halMutex().
void resetMemoryLocked();

// Picks the next free non-zero id after `last` among ids that `inUse` rejects; handles stay
// small and an id is not handed out again right after it was freed, so a stale id is refused
// rather than silently naming a newer object.
template <typename InUse>
uint32_t nextId(uint32_t &last, InUse inUse)
{
    do {
        ++last;
    } while (last == 0 || inUse(last));
    return last;
}

} // namespace arvo_hal
