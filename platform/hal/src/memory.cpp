// Memory half of the stand-in HAL: ION memory as memfd shared memory.
//
// An allocation is a memfd named "arvo-ion-<physical address>". The name is what makes the
// memory findable from outside: a share handle is <owner pid, physical address>, and an
// importer (or the emulator resolving a physical address) looks through the holder's
// /proc/<pid>/fd for the descriptor with that name and reopens it there. Nothing lives in a
// file system namespace, so a process that dies leaves nothing behind.

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <utility>
#include <vector>

#include <usbd/unique_fd.h>

#include "arvo_hal.h"
#include "arvo_hal_sim.h"
#include "hal_state.h"

namespace arvo_hal {
namespace {

constexpr uint32_t kPageSize = 4096;
constexpr uint64_t kAddressSpace = uint64_t(1) << 32;
// Attempts at a random free physical range before an allocation gives up; the space is 2^20
// pages, so failing this often means it is genuinely crowded.
constexpr int kPlacementAttempts = 256;
constexpr char kMemfdPrefix[] = "arvo-ion-";
constexpr char kLinkPrefix[] = "/memfd:arvo-ion-";
constexpr char kLinkSuffix[] = " (deleted)";

struct Memory {
    usbd::UniqueFd fd;
    uint32_t phys = 0;
    uint32_t size = 0;
    uint8_t *base = nullptr; // mapping of the whole object, or null
};

// Guarded by halMutex().
uint32_t lastMemory = 0;
std::map<arvo_hal_mem_t, Memory> memories;

struct Range {
    uint64_t begin;
    uint64_t end;
};

// Parses "/memfd:arvo-ion-xxxxxxxx (deleted)" exactly; any other link is not HAL memory.
bool parseMemfdLink(const char *target, uint32_t *phys)
{
    const size_t prefix = sizeof(kLinkPrefix) - 1;
    if (std::strncmp(target, kLinkPrefix, prefix) != 0)
        return false;
    const char *hex = target + prefix;
    uint32_t value = 0;
    for (int i = 0; i < 8; ++i) {
        const char c = hex[i];
        uint32_t digit;
        if (c >= '0' && c <= '9')
            digit = uint32_t(c - '0');
        else if (c >= 'a' && c <= 'f')
            digit = uint32_t(c - 'a' + 10);
        else
            return false;
        value = value << 4 | digit;
    }
    if (std::strcmp(hex + 8, kLinkSuffix) != 0)
        return false;
    *phys = value;
    return true;
}

// Calls visit(fdPath, phys) for every HAL memory descriptor in /proc/<pid>/fd. A process that
// is gone or not ours to look at simply has none.
template <typename Visit>
void forEachMemfd(long pid, Visit visit)
{
    char dirPath[64];
    std::snprintf(dirPath, sizeof(dirPath), "/proc/%ld/fd", pid);
    DIR *dir = ::opendir(dirPath);
    if (!dir)
        return;
    while (const dirent *entry = ::readdir(dir)) {
        char *end = nullptr;
        const long fd = std::strtol(entry->d_name, &end, 10);
        if (fd < 0 || end == entry->d_name || *end != '\0')
            continue;
        char fdPath[96];
        std::snprintf(fdPath, sizeof(fdPath), "%s/%ld", dirPath, fd);
        char target[64];
        const ssize_t n = ::readlink(fdPath, target, sizeof(target) - 1);
        if (n <= 0)
            continue;
        target[n] = '\0';
        uint32_t phys = 0;
        if (parseMemfdLink(target, &phys) && !visit(fdPath, phys))
            break;
    }
    ::closedir(dir);
}

// Size of the object behind a /proc fd link; stat follows the link to the memfd itself.
bool memfdSize(const char *fdPath, uint64_t *size)
{
    struct stat st;
    if (::stat(fdPath, &st) != 0 || st.st_size < 0)
        return false;
    *size = uint64_t(st.st_size);
    return true;
}

// Reopens the memory behind a /proc fd link and checks that the descriptor still names
// `phys`: the fd number may have been closed and reused between the scan and the open.
usbd::UniqueFd reopenMemfd(const char *fdPath, uint32_t phys, int flags)
{
    usbd::UniqueFd fd(::open(fdPath, flags | O_CLOEXEC));
    if (!fd)
        return fd;
    char selfPath[64];
    std::snprintf(selfPath, sizeof(selfPath), "/proc/self/fd/%d", fd.get());
    char target[64];
    const ssize_t n = ::readlink(selfPath, target, sizeof(target) - 1);
    uint32_t actual = 0;
    if (n <= 0)
        return usbd::UniqueFd();
    target[n] = '\0';
    if (!parseMemfdLink(target, &actual) || actual != phys)
        return usbd::UniqueFd();
    return fd;
}

// Physical ranges already taken: this process's objects and, as far as /proc lets us see,
// every other process's. Different processes choose addresses independently, and a process
// that imports memory from several of them (the daemon) must still be able to tell their
// physical addresses apart.
std::vector<Range> occupiedRangesLocked()
{
    std::vector<Range> ranges;
    for (const auto &entry : memories)
        ranges.push_back({entry.second.phys, uint64_t(entry.second.phys) + entry.second.size});
    DIR *proc = ::opendir("/proc");
    if (!proc)
        return ranges;
    const long self = long(::getpid());
    while (const dirent *entry = ::readdir(proc)) {
        char *end = nullptr;
        const long pid = std::strtol(entry->d_name, &end, 10);
        // Our own objects are in the table; scanning them again would make a process that
        // holds many allocations pay for each of them on every new one.
        if (pid <= 0 || *end != '\0' || pid == self)
            continue;
        forEachMemfd(pid, [&ranges](const char *fdPath, uint32_t phys) {
            uint64_t size = 0;
            if (memfdSize(fdPath, &size))
                ranges.push_back({phys, phys + size});
            return true;
        });
    }
    ::closedir(proc);
    return ranges;
}

uint32_t randomWord()
{
    uint32_t value = 0;
    if (::getrandom(&value, sizeof(value), 0) != sizeof(value)) {
        // getrandom cannot fail for four bytes once the pool is up; this only keeps the
        // result defined.
        value = uint32_t(::getpid()) * 2654435761u ^ uint32_t(reinterpret_cast<uintptr_t>(&value));
    }
    return value;
}

// A random, page-aligned, non-zero base whose whole range fits in 32 bits and overlaps no
// taken range; 0 when none was found.
uint32_t choosePhysLocked(uint32_t size, uint32_t alignment)
{
    const uint64_t span = (uint64_t(size) + kPageSize - 1) / kPageSize * kPageSize;
    uint64_t align = kPageSize;
    if (alignment > kPageSize && (alignment & (alignment - 1)) == 0)
        align = alignment;
    if (span >= kAddressSpace)
        return 0;
    const std::vector<Range> taken = occupiedRangesLocked();
    for (int attempt = 0; attempt < kPlacementAttempts; ++attempt) {
        const uint64_t base = uint64_t(randomWord()) & ~(align - 1);
        if (base == 0 || base + span > kAddressSpace)
            continue;
        bool free = true;
        for (const Range &range : taken) {
            if (base < range.end && range.begin < base + span) {
                free = false;
                break;
            }
        }
        if (free)
            return uint32_t(base);
    }
    return 0;
}

Memory *findLocked(arvo_hal_mem_t memory)
{
    const auto it = memories.find(memory);
    return it == memories.end() ? nullptr : &it->second;
}

void unmapLocked(Memory &memory)
{
    if (memory.base) {
        ::munmap(memory.base, memory.size);
        memory.base = nullptr;
    }
}

arvo_hal_mem_t addLocked(Memory memory)
{
    const arvo_hal_mem_t id =
        nextId(lastMemory, [](uint32_t candidate) { return memories.count(candidate) != 0; });
    memories.emplace(id, std::move(memory));
    return id;
}

} // namespace

void resetMemoryLocked()
{
    for (auto &entry : memories)
        unmapLocked(entry.second);
    memories.clear();
    lastMemory = 0;
}

} // namespace arvo_hal

using namespace arvo_hal;

extern "C" {

int arvo_hal_mem_alloc(arvo_hal_handle_t ion, arvo_hal_mem_t *memory, uint32_t size,
                       uint32_t alignment, uint32_t /*flags*/, uint32_t /*heap_id*/)
{
    if (!memory || size == 0)
        return ARVO_HAL_ERR_INVALID;
    std::lock_guard<std::mutex> lock(halMutex());
    const int device = checkOpenDeviceLocked(ion);
    if (device != ARVO_HAL_OK)
        return device;
    const uint32_t phys = choosePhysLocked(size, alignment);
    if (phys == 0)
        return ARVO_HAL_ERR_NO_MEMORY;
    char name[32];
    std::snprintf(name, sizeof(name), "%s%08" PRIx32, kMemfdPrefix, phys);
    Memory object;
    object.fd.reset(::memfd_create(name, MFD_CLOEXEC));
    if (!object.fd || ::ftruncate(object.fd.get(), off_t(size)) != 0)
        return ARVO_HAL_ERR_NO_MEMORY;
    object.phys = phys;
    object.size = size;
    *memory = addLocked(std::move(object));
    return ARVO_HAL_OK;
}

int arvo_hal_mem_import(arvo_hal_handle_t ion, arvo_hal_mem_t *memory, uint64_t share_handle)
{
    if (!memory)
        return ARVO_HAL_ERR_INVALID;
    const long pid = long(share_handle >> 32);
    const uint32_t phys = uint32_t(share_handle);
    std::lock_guard<std::mutex> lock(halMutex());
    const int device = checkOpenDeviceLocked(ion);
    if (device != ARVO_HAL_OK)
        return device;
    if (pid <= 0 || pid > INT32_MAX || phys == 0 || phys % kPageSize != 0)
        return ARVO_HAL_ERR_NOT_FOUND;
    Memory object;
    forEachMemfd(pid, [&object, phys](const char *fdPath, uint32_t candidate) {
        if (candidate != phys)
            return true;
        object.fd = reopenMemfd(fdPath, phys, O_RDWR);
        return !object.fd;
    });
    if (!object.fd)
        return ARVO_HAL_ERR_NOT_FOUND;
    struct stat st;
    if (::fstat(object.fd.get(), &st) != 0 || st.st_size <= 0 || uint64_t(st.st_size) > UINT32_MAX)
        return ARVO_HAL_ERR_NOT_FOUND;
    object.phys = phys;
    object.size = uint32_t(st.st_size);
    *memory = addLocked(std::move(object));
    return ARVO_HAL_OK;
}

int arvo_hal_mem_share(arvo_hal_mem_t memory, uint64_t *share_handle)
{
    if (!share_handle)
        return ARVO_HAL_ERR_INVALID;
    std::lock_guard<std::mutex> lock(halMutex());
    const Memory *object = findLocked(memory);
    if (!object)
        return ARVO_HAL_ERR_INVALID;
    // Whoever holds the memory can hand it on, imported or not: the handle names this
    // process, whose descriptor table is where an importer will look.
    *share_handle = uint64_t(uint32_t(::getpid())) << 32 | object->phys;
    return ARVO_HAL_OK;
}

int arvo_hal_mem_get_size(arvo_hal_mem_t memory, uint32_t *size)
{
    if (!size)
        return ARVO_HAL_ERR_INVALID;
    std::lock_guard<std::mutex> lock(halMutex());
    const Memory *object = findLocked(memory);
    if (!object)
        return ARVO_HAL_ERR_INVALID;
    struct stat st;
    if (::fstat(object->fd.get(), &st) != 0)
        return ARVO_HAL_ERR_GENERIC;
    *size = uint32_t(st.st_size);
    return ARVO_HAL_OK;
}

int arvo_hal_mem_map(arvo_hal_mem_t memory, uint8_t **virtual_base)
{
    if (!virtual_base)
        return ARVO_HAL_ERR_INVALID;
    std::lock_guard<std::mutex> lock(halMutex());
    Memory *object = findLocked(memory);
    if (!object)
        return ARVO_HAL_ERR_INVALID;
    if (!object->base) {
        void *base =
            ::mmap(nullptr, object->size, PROT_READ | PROT_WRITE, MAP_SHARED, object->fd.get(), 0);
        if (base == MAP_FAILED)
            return errno == ENOMEM ? ARVO_HAL_ERR_NO_MEMORY : ARVO_HAL_ERR_GENERIC;
        object->base = static_cast<uint8_t *>(base);
    }
    *virtual_base = object->base;
    return ARVO_HAL_OK;
}

int arvo_hal_mem_get_phys_addr(arvo_hal_mem_t memory, uint32_t *physical_address)
{
    if (!physical_address)
        return ARVO_HAL_ERR_INVALID;
    std::lock_guard<std::mutex> lock(halMutex());
    const Memory *object = findLocked(memory);
    if (!object)
        return ARVO_HAL_ERR_INVALID;
    *physical_address = object->phys;
    return ARVO_HAL_OK;
}

int arvo_hal_mem_sync(arvo_hal_mem_t memory, int /*direction*/)
{
    // Shared memory is coherent here; only the argument is checked.
    std::lock_guard<std::mutex> lock(halMutex());
    return findLocked(memory) ? ARVO_HAL_OK : ARVO_HAL_ERR_INVALID;
}

int arvo_hal_mem_unmap(arvo_hal_mem_t memory)
{
    std::lock_guard<std::mutex> lock(halMutex());
    Memory *object = findLocked(memory);
    if (!object)
        return ARVO_HAL_ERR_INVALID;
    unmapLocked(*object);
    return ARVO_HAL_OK;
}

int arvo_hal_mem_free(arvo_hal_mem_t memory)
{
    std::lock_guard<std::mutex> lock(halMutex());
    const auto it = memories.find(memory);
    if (it == memories.end())
        return ARVO_HAL_ERR_INVALID;
    unmapLocked(it->second);
    memories.erase(it);
    return ARVO_HAL_OK;
}

int arvo_sim_memory_count(void)
{
    std::lock_guard<std::mutex> lock(halMutex());
    return int(memories.size());
}

int arvo_sim_resolve_phys(pid_t pid, uint32_t phys, uint32_t length, int *fd_out,
                          uint64_t *offset_out)
{
    if (!fd_out || !offset_out)
        return ARVO_HAL_ERR_INVALID;
    if (pid <= 0)
        return ARVO_HAL_ERR_NOT_FOUND;
    // /proc/<tid>/fd is the descriptor table of the thread's process, so a thread id will do.
    int result = ARVO_HAL_ERR_NOT_FOUND;
    forEachMemfd(pid, [&](const char *fdPath, uint32_t base) {
        uint64_t size = 0;
        if (phys < base || !memfdSize(fdPath, &size) || phys >= base + size)
            return true;
        if (uint64_t(phys) + length > base + size) {
            result = ARVO_HAL_ERR_INVALID;
            return true;
        }
        usbd::UniqueFd fd = reopenMemfd(fdPath, base, O_RDONLY);
        if (!fd)
            return true;
        *fd_out = fd.release();
        *offset_out = phys - base;
        result = ARVO_HAL_OK;
        return false;
    });
    return result;
}

} // extern "C"
