#include <gtest/gtest.h>

#include <dirent.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <arvo_hal.h>
#include <arvo_hal_sim.h>
#include <usbd/unique_fd.h>

namespace {

std::set<std::string> listDir(const char *path)
{
    std::set<std::string> names;
    if (DIR *dir = ::opendir(path)) {
        while (const dirent *entry = ::readdir(dir))
            names.insert(entry->d_name);
        ::closedir(dir);
    }
    return names;
}

// Descriptors of this process that are HAL memory, to prove that freeing leaves none behind.
int ownMemfdCount()
{
    int count = 0;
    for (const std::string &name : listDir("/proc/self/fd")) {
        char target[128] = {};
        const std::string path = "/proc/self/fd/" + name;
        if (::readlink(path.c_str(), target, sizeof(target) - 1) > 0 &&
            std::strstr(target, "arvo-ion-"))
            ++count;
    }
    return count;
}

bool writeAll(int fd, const void *data, size_t size)
{
    return ::write(fd, data, size) == ssize_t(size);
}

bool readAll(int fd, void *data, size_t size)
{
    return ::read(fd, data, size) == ssize_t(size);
}

struct Pipe {
    usbd::UniqueFd read;
    usbd::UniqueFd write;
    Pipe()
    {
        int fds[2] = {-1, -1};
        if (::pipe(fds) == 0) {
            read.reset(fds[0]);
            write.reset(fds[1]);
        }
    }
};

int waitExit(pid_t pid)
{
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

class HalMemory : public ::testing::Test {
protected:
    void SetUp() override
    {
        arvo_sim_reset();
        ASSERT_EQ(arvo_hal_initialize(nullptr), ARVO_HAL_OK);
        // The HAL wants an open device for the allocator; any node will do.
        ASSERT_EQ(arvo_hal_device_open("/proc/self/exe", nullptr, &ion_), ARVO_HAL_OK);
    }
    void TearDown() override
    {
        arvo_sim_reset();
        EXPECT_EQ(ownMemfdCount(), 0);
    }

    arvo_hal_mem_t alloc(uint32_t size)
    {
        arvo_hal_mem_t memory = 0;
        EXPECT_EQ(arvo_hal_mem_alloc(ion_, &memory, size, 1024, 0, 27), ARVO_HAL_OK);
        return memory;
    }

    arvo_hal_handle_t ion_ = 0;
};

TEST_F(HalMemory, AllocationMapAndRefusals)
{
    arvo_hal_mem_t memory = 0;
    EXPECT_EQ(arvo_hal_mem_alloc(ion_, &memory, 0, 1024, 0, 27), ARVO_HAL_ERR_INVALID);
    EXPECT_EQ(arvo_hal_mem_alloc(ion_ + 100, &memory, 128, 1024, 0, 27), ARVO_HAL_ERR_INVALID);
    EXPECT_EQ(arvo_hal_mem_alloc(ion_, nullptr, 128, 1024, 0, 27), ARVO_HAL_ERR_INVALID);

    memory = alloc(1000);
    ASSERT_NE(memory, 0u);
    uint32_t size = 0;
    ASSERT_EQ(arvo_hal_mem_get_size(memory, &size), ARVO_HAL_OK);
    EXPECT_EQ(size, 1000u);
    uint32_t phys = 0;
    ASSERT_EQ(arvo_hal_mem_get_phys_addr(memory, &phys), ARVO_HAL_OK);
    EXPECT_NE(phys, 0u);
    EXPECT_EQ(phys % 4096, 0u);
    uint64_t handle = 0;
    ASSERT_EQ(arvo_hal_mem_share(memory, &handle), ARVO_HAL_OK);
    EXPECT_EQ(handle, uint64_t(::getpid()) << 32 | phys);

    uint8_t *first = nullptr;
    uint8_t *second = nullptr;
    ASSERT_EQ(arvo_hal_mem_map(memory, &first), ARVO_HAL_OK);
    ASSERT_EQ(arvo_hal_mem_map(memory, &second), ARVO_HAL_OK);
    EXPECT_EQ(first, second);
    std::memset(first, 0x5a, 1000);
    EXPECT_EQ(arvo_hal_mem_sync(memory, 1), ARVO_HAL_OK);
    EXPECT_EQ(arvo_hal_mem_unmap(memory), ARVO_HAL_OK);
    ASSERT_EQ(arvo_hal_mem_map(memory, &first), ARVO_HAL_OK);
    EXPECT_EQ(first[999], 0x5a);

    // A freed object is refused by every call, as are ids that were never handed out.
    EXPECT_EQ(arvo_hal_mem_free(memory), ARVO_HAL_OK);
    for (arvo_hal_mem_t bad : {memory, arvo_hal_mem_t(0), arvo_hal_mem_t(0xdead)}) {
        EXPECT_EQ(arvo_hal_mem_get_size(bad, &size), ARVO_HAL_ERR_INVALID);
        EXPECT_EQ(arvo_hal_mem_map(bad, &first), ARVO_HAL_ERR_INVALID);
        EXPECT_EQ(arvo_hal_mem_get_phys_addr(bad, &phys), ARVO_HAL_ERR_INVALID);
        EXPECT_EQ(arvo_hal_mem_share(bad, &handle), ARVO_HAL_ERR_INVALID);
        EXPECT_EQ(arvo_hal_mem_sync(bad, 1), ARVO_HAL_ERR_INVALID);
        EXPECT_EQ(arvo_hal_mem_unmap(bad), ARVO_HAL_ERR_INVALID);
        EXPECT_EQ(arvo_hal_mem_free(bad), ARVO_HAL_ERR_INVALID);
    }
    EXPECT_EQ(arvo_sim_memory_count(), 0);

    // Without an open allocator device nothing can be allocated.
    ASSERT_EQ(arvo_hal_device_close(ion_), ARVO_HAL_OK);
    EXPECT_EQ(arvo_hal_mem_alloc(ion_, &memory, 128, 1024, 0, 27), ARVO_HAL_ERR_INVALID);
    EXPECT_EQ(arvo_hal_mem_import(ion_, &memory, handle), ARVO_HAL_ERR_INVALID);
}

TEST_F(HalMemory, PhysicalRangesDoNotOverlap)
{
    // Large allocations make a clash of random bases likely if placement did not check.
    constexpr uint32_t kSize = 64u << 20;
    std::vector<std::pair<uint64_t, uint64_t>> ranges;
    std::vector<arvo_hal_mem_t> objects;
    for (int i = 0; i < 24; ++i) {
        const arvo_hal_mem_t memory = alloc(kSize);
        ASSERT_NE(memory, 0u);
        uint32_t phys = 0;
        ASSERT_EQ(arvo_hal_mem_get_phys_addr(memory, &phys), ARVO_HAL_OK);
        EXPECT_LE(uint64_t(phys) + kSize, uint64_t(1) << 32);
        ranges.emplace_back(phys, uint64_t(phys) + kSize);
        objects.push_back(memory);
    }
    std::sort(ranges.begin(), ranges.end());
    for (size_t i = 1; i < ranges.size(); ++i)
        EXPECT_LE(ranges[i - 1].second, ranges[i].first);
    for (arvo_hal_mem_t memory : objects)
        EXPECT_EQ(arvo_hal_mem_free(memory), ARVO_HAL_OK);
}

TEST_F(HalMemory, ResolvePhysicalAddress)
{
    const arvo_hal_mem_t memory = alloc(8192);
    uint8_t *base = nullptr;
    ASSERT_EQ(arvo_hal_mem_map(memory, &base), ARVO_HAL_OK);
    for (int i = 0; i < 8192; ++i)
        base[i] = uint8_t(i * 7);
    uint32_t phys = 0;
    ASSERT_EQ(arvo_hal_mem_get_phys_addr(memory, &phys), ARVO_HAL_OK);

    // The emulator learns the calling thread's id, not the process id.
    int fd = -1;
    uint64_t offset = 0;
    std::thread([&] {
        const pid_t tid = pid_t(::syscall(SYS_gettid));
        EXPECT_EQ(arvo_sim_resolve_phys(tid, phys + 5000, 3000, &fd, &offset), ARVO_HAL_OK);
    }).join();
    ASSERT_GE(fd, 0);
    usbd::UniqueFd owned(fd);
    EXPECT_EQ(offset, 5000u);
    uint8_t bytes[3000];
    ASSERT_EQ(::pread(fd, bytes, sizeof(bytes), off_t(offset)), ssize_t(sizeof(bytes)));
    EXPECT_EQ(std::memcmp(bytes, base + 5000, sizeof(bytes)), 0);
    // Read-only: the emulator only ever reads what the daemon sends.
    EXPECT_LT(::pwrite(fd, bytes, 1, 0), 0);

    EXPECT_EQ(arvo_sim_resolve_phys(::getpid(), phys, 8192, &fd, &offset), ARVO_HAL_OK);
    owned.reset(fd);
    EXPECT_EQ(offset, 0u);
    EXPECT_EQ(arvo_sim_resolve_phys(::getpid(), phys + 8000, 193, &fd, &offset),
              ARVO_HAL_ERR_INVALID);
    EXPECT_EQ(arvo_sim_resolve_phys(::getpid(), phys + 8192, 1, &fd, &offset),
              ARVO_HAL_ERR_NOT_FOUND);
    EXPECT_EQ(arvo_sim_resolve_phys(::getpid(), phys - 4096, 1, &fd, &offset),
              ARVO_HAL_ERR_NOT_FOUND);
    EXPECT_EQ(arvo_sim_resolve_phys(::getpid(), phys, 1, nullptr, &offset), ARVO_HAL_ERR_INVALID);

    // The resolved descriptor is itself the memory; only without it is the memory gone.
    owned.reset();
    EXPECT_EQ(arvo_hal_mem_free(memory), ARVO_HAL_OK);
    EXPECT_EQ(arvo_sim_resolve_phys(::getpid(), phys, 1, &fd, &offset), ARVO_HAL_ERR_NOT_FOUND);
}

TEST_F(HalMemory, SharingAcrossProcesses)
{
    const arvo_hal_mem_t memory = alloc(4096);
    uint8_t *data = nullptr;
    ASSERT_EQ(arvo_hal_mem_map(memory, &data), ARVO_HAL_OK);
    std::memcpy(data, "from parent", 12);
    uint64_t handle = 0;
    ASSERT_EQ(arvo_hal_mem_share(memory, &handle), ARVO_HAL_OK);

    Pipe up;
    Pipe down;
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // Start as a process of its own would: what fork copied (the parent's objects and
        // their descriptors) must not be what makes the parent's memory reachable here.
        arvo_sim_reset();
        arvo_hal_handle_t ion = 0;
        arvo_hal_mem_t imported = 0;
        uint8_t *view = nullptr;
        uint32_t size = 0;
        uint64_t reshared = 0;
        char go = 0;
        const bool ok = arvo_hal_initialize(nullptr) == ARVO_HAL_OK &&
                        arvo_hal_device_open("/proc/self/exe", nullptr, &ion) == ARVO_HAL_OK &&
                        arvo_hal_mem_import(ion, &imported, handle) == ARVO_HAL_OK &&
                        arvo_hal_mem_map(imported, &view) == ARVO_HAL_OK &&
                        arvo_hal_mem_get_size(imported, &size) == ARVO_HAL_OK && size == 4096 &&
                        std::memcmp(view, "from parent", 12) == 0 &&
                        arvo_hal_mem_share(imported, &reshared) == ARVO_HAL_OK;
        if (ok)
            std::memcpy(view + 100, "from child", 11);
        writeAll(up.write.get(), &reshared, sizeof(reshared));
        readAll(down.read.get(), &go, 1);
        ::_exit(ok ? 0 : 1);
    }
    uint64_t reshared = 0;
    ASSERT_TRUE(readAll(up.read.get(), &reshared, sizeof(reshared)));
    EXPECT_EQ(std::memcmp(data + 100, "from child", 11), 0);
    // The child can hand on what it imported: the handle names the child, same address.
    EXPECT_EQ(reshared, uint64_t(child) << 32 | uint32_t(handle));
    arvo_hal_mem_t viaChild = 0;
    EXPECT_EQ(arvo_hal_mem_import(ion_, &viaChild, reshared), ARVO_HAL_OK);
    uint8_t *viaChildData = nullptr;
    if (arvo_hal_mem_map(viaChild, &viaChildData) == ARVO_HAL_OK) {
        viaChildData[200] = 0x77;
        EXPECT_EQ(data[200], 0x77);
    }
    EXPECT_TRUE(writeAll(down.write.get(), "x", 1));
    EXPECT_EQ(waitExit(child), 0);
}

TEST_F(HalMemory, KilledOwnerLeavesNothingBehind)
{
    const std::set<std::string> shmBefore = listDir("/dev/shm");
    Pipe up;
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        up.read.reset();
        arvo_hal_mem_t memory = 0;
        uint64_t handle = 0;
        uint8_t *data = nullptr;
        if (arvo_hal_mem_alloc(ion_, &memory, 1 << 20, 1024, 0, 27) != ARVO_HAL_OK ||
            arvo_hal_mem_map(memory, &data) != ARVO_HAL_OK ||
            arvo_hal_mem_share(memory, &handle) != ARVO_HAL_OK)
            ::_exit(1);
        std::memset(data, 0xa5, 1 << 20);
        writeAll(up.write.get(), &handle, sizeof(handle));
        ::pause();
        ::_exit(0);
    }
    up.write.reset();
    uint64_t handle = 0;
    ASSERT_TRUE(readAll(up.read.get(), &handle, sizeof(handle)));

    // An importer keeps what it imported even when the owner dies.
    arvo_hal_mem_t kept = 0;
    EXPECT_EQ(arvo_hal_mem_import(ion_, &kept, handle), ARVO_HAL_OK);
    ::kill(child, SIGKILL);
    EXPECT_EQ(waitExit(child), 128 + SIGKILL);
    uint8_t *data = nullptr;
    ASSERT_EQ(arvo_hal_mem_map(kept, &data), ARVO_HAL_OK);
    EXPECT_EQ(data[(1 << 20) - 1], 0xa5);

    arvo_hal_mem_t again = 0;
    EXPECT_EQ(arvo_hal_mem_import(ion_, &again, handle), ARVO_HAL_ERR_NOT_FOUND);
    EXPECT_EQ(arvo_hal_mem_free(kept), ARVO_HAL_OK);
    EXPECT_EQ(listDir("/dev/shm"), shmBefore);
}

TEST_F(HalMemory, BadOrStaleHandlesAreRefused)
{
    const arvo_hal_mem_t memory = alloc(4096);
    uint64_t handle = 0;
    ASSERT_EQ(arvo_hal_mem_share(memory, &handle), ARVO_HAL_OK);
    const uint64_t pid = handle >> 32;
    const uint32_t phys = uint32_t(handle);
    arvo_hal_mem_t imported = 0;
    for (uint64_t bad : {uint64_t(0), uint64_t(phys),                     // no process
                         pid << 32,                                       // no address
                         pid << 32 | (phys + 1),                          // not page aligned
                         pid << 32 | (phys + 4096),                       // not an allocation's base
                         uint64_t(0x7fffffff) << 32 | phys,               // no such process
                         uint64_t(0xffffffff) << 32 | phys,               // not a pid at all
                         uint64_t(1) << 32 | phys}) {                     // a process without it
        EXPECT_EQ(arvo_hal_mem_import(ion_, &imported, bad), ARVO_HAL_ERR_NOT_FOUND) << std::hex << bad;
    }
    EXPECT_EQ(arvo_hal_mem_import(ion_, nullptr, handle), ARVO_HAL_ERR_INVALID);
    // Importing one's own memory works and yields a second object on the same bytes.
    ASSERT_EQ(arvo_hal_mem_import(ion_, &imported, handle), ARVO_HAL_OK);
    EXPECT_NE(imported, memory);
    EXPECT_EQ(arvo_sim_memory_count(), 2);
    // Once every holder has freed it, the memory is gone.
    EXPECT_EQ(arvo_hal_mem_free(memory), ARVO_HAL_OK);
    EXPECT_EQ(arvo_hal_mem_free(imported), ARVO_HAL_OK);
    EXPECT_EQ(arvo_hal_mem_import(ion_, &imported, handle), ARVO_HAL_ERR_NOT_FOUND);
}

} // namespace
