// The HAL memory stand-in where the daemon and the emulator depend on it: handles that work
// across processes and stop working once freed, physical addresses that resolve to the right
// bytes and no further, and nothing left behind by a process that is killed.
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
        if (::readlink(("/proc/self/fd/" + name).c_str(), target, sizeof(target) - 1) > 0
            && std::strstr(target, "arvo-ion-"))
            ++count;
    }
    return count;
}

// A child process and a pipe from it: the child sends one value and waits for the parent.
struct Child {
    usbd::UniqueFd up;
    usbd::UniqueFd down;
    pid_t pid = -1;

    template <class Body>
    explicit Child(Body body)
    {
        int upFds[2], downFds[2];
        if (::pipe(upFds) != 0 || ::pipe(downFds) != 0)
            return;
        up.reset(upFds[0]);
        down.reset(downFds[1]);
        pid = ::fork();
        if (pid == 0) {
            ::close(upFds[0]);
            ::close(downFds[1]);
            uint64_t value = 0;
            const bool ok = body(&value);
            char go = 0;
            if (::write(upFds[1], &value, sizeof value) == ssize_t(sizeof value))
                (void)!::read(downFds[0], &go, 1);
            ::_exit(ok ? 0 : 1);
        }
        ::close(upFds[1]);
        ::close(downFds[0]);
    }

    bool receive(uint64_t *value)
    {
        return ::read(up.get(), value, sizeof *value) == ssize_t(sizeof *value);
    }

    int finish()
    {
        down.reset();
        int status = 0;
        if (::waitpid(pid, &status, 0) != pid)
            return -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
};

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

    arvo_hal_mem_t alloc(uint32_t size, uint8_t **data = nullptr)
    {
        arvo_hal_mem_t memory = 0;
        EXPECT_EQ(arvo_hal_mem_alloc(ion_, &memory, size, 1024, 0, 27), ARVO_HAL_OK);
        if (data) {
            EXPECT_EQ(arvo_hal_mem_map(memory, data), ARVO_HAL_OK);
        }
        return memory;
    }

    arvo_hal_handle_t ion_ = 0;
};

TEST_F(HalMemory, SharingAcrossProcessesAndRefusedHandles)
{
    uint8_t *data = nullptr;
    const arvo_hal_mem_t memory = alloc(4096, &data);
    std::memcpy(data, "from parent", 12);
    uint64_t handle = 0;
    ASSERT_EQ(arvo_hal_mem_share(memory, &handle), ARVO_HAL_OK);

    Child child([handle](uint64_t *) {
        // Start as a process of its own would: what fork copied (the parent's objects and
        // their descriptors) must not be what makes the parent's memory reachable here.
        arvo_sim_reset();
        arvo_hal_handle_t ion = 0;
        arvo_hal_mem_t imported = 0;
        uint8_t *view = nullptr;
        uint32_t size = 0;
        const bool ok = arvo_hal_initialize(nullptr) == ARVO_HAL_OK
                        && arvo_hal_device_open("/proc/self/exe", nullptr, &ion) == ARVO_HAL_OK
                        && arvo_hal_mem_import(ion, &imported, handle) == ARVO_HAL_OK
                        && arvo_hal_mem_map(imported, &view) == ARVO_HAL_OK
                        && arvo_hal_mem_get_size(imported, &size) == ARVO_HAL_OK && size == 4096
                        && std::memcmp(view, "from parent", 12) == 0;
        if (ok)
            std::memcpy(view + 100, "from child", 11);
        return ok;
    });
    ASSERT_GT(child.pid, 0);
    uint64_t ignored = 0;
    ASSERT_TRUE(child.receive(&ignored));
    EXPECT_EQ(std::memcmp(data + 100, "from child", 11), 0);
    EXPECT_EQ(child.finish(), 0);

    const uint64_t pid = handle >> 32;
    const uint32_t phys = uint32_t(handle);
    arvo_hal_mem_t imported = 0;
    for (uint64_t bad : {uint64_t(0), uint64_t(phys),       // no process
                         pid << 32,                         // no address
                         pid << 32 | (phys + 1),            // not page aligned
                         pid << 32 | (phys + 4096),         // not an allocation's base
                         uint64_t(0x7fffffff) << 32 | phys, // no such process
                         uint64_t(0xffffffff) << 32 | phys, // not a pid at all
                         uint64_t(1) << 32 | phys}) {       // a process without it
        EXPECT_EQ(arvo_hal_mem_import(ion_, &imported, bad), ARVO_HAL_ERR_NOT_FOUND)
            << std::hex << bad;
    }
    // Importing one's own memory yields a second object on the same bytes; once every holder
    // has freed it, the handle is refused, and so is the freed object.
    ASSERT_EQ(arvo_hal_mem_import(ion_, &imported, handle), ARVO_HAL_OK);
    EXPECT_NE(imported, memory);
    EXPECT_EQ(arvo_hal_mem_free(memory), ARVO_HAL_OK);
    EXPECT_EQ(arvo_hal_mem_free(imported), ARVO_HAL_OK);
    EXPECT_EQ(arvo_hal_mem_import(ion_, &imported, handle), ARVO_HAL_ERR_NOT_FOUND);
    EXPECT_EQ(arvo_hal_mem_map(memory, &data), ARVO_HAL_ERR_INVALID);
    EXPECT_EQ(arvo_hal_mem_free(memory), ARVO_HAL_ERR_INVALID);
    EXPECT_EQ(arvo_sim_memory_count(), 0);
}

TEST_F(HalMemory, PhysicalAddressesResolveToTheirBytesAndNoFurther)
{
    // Large allocations make a clash of random bases likely if placement did not check.
    constexpr uint32_t kSize = 64u << 20;
    std::vector<std::pair<uint64_t, uint64_t>> ranges;
    for (int i = 0; i < 24; ++i) {
        uint32_t phys = 0;
        ASSERT_EQ(arvo_hal_mem_get_phys_addr(alloc(kSize), &phys), ARVO_HAL_OK);
        EXPECT_LE(uint64_t(phys) + kSize, uint64_t(1) << 32);
        ranges.emplace_back(phys, uint64_t(phys) + kSize);
    }
    std::sort(ranges.begin(), ranges.end());
    for (size_t i = 1; i < ranges.size(); ++i)
        EXPECT_LE(ranges[i - 1].second, ranges[i].first);

    uint8_t *base = nullptr;
    const arvo_hal_mem_t memory = alloc(8192, &base);
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

    EXPECT_EQ(arvo_sim_resolve_phys(::getpid(), phys + 8000, 193, &fd, &offset),
              ARVO_HAL_ERR_INVALID);
    EXPECT_EQ(arvo_sim_resolve_phys(::getpid(), phys + 8192, 1, &fd, &offset),
              ARVO_HAL_ERR_NOT_FOUND);
    EXPECT_EQ(arvo_sim_resolve_phys(::getpid(), phys - 4096, 1, &fd, &offset),
              ARVO_HAL_ERR_NOT_FOUND);

    // The resolved descriptor is itself the memory; only without it is the memory gone.
    owned.reset();
    EXPECT_EQ(arvo_hal_mem_free(memory), ARVO_HAL_OK);
    EXPECT_EQ(arvo_sim_resolve_phys(::getpid(), phys, 1, &fd, &offset), ARVO_HAL_ERR_NOT_FOUND);
}

TEST_F(HalMemory, KilledOwnerLeavesNothingBehind)
{
    const std::set<std::string> shmBefore = listDir("/dev/shm");
    Child child([this](uint64_t *handle) {
        arvo_hal_mem_t memory = 0;
        uint8_t *data = nullptr;
        if (arvo_hal_mem_alloc(ion_, &memory, 1 << 20, 1024, 0, 27) != ARVO_HAL_OK
            || arvo_hal_mem_map(memory, &data) != ARVO_HAL_OK
            || arvo_hal_mem_share(memory, handle) != ARVO_HAL_OK)
            return false;
        std::memset(data, 0xa5, 1 << 20);
        return true;
    });
    ASSERT_GT(child.pid, 0);
    uint64_t handle = 0;
    ASSERT_TRUE(child.receive(&handle));

    // An importer keeps what it imported even when the owner dies.
    arvo_hal_mem_t kept = 0;
    EXPECT_EQ(arvo_hal_mem_import(ion_, &kept, handle), ARVO_HAL_OK);
    ::kill(child.pid, SIGKILL);
    EXPECT_EQ(child.finish(), 128 + SIGKILL);
    uint8_t *data = nullptr;
    ASSERT_EQ(arvo_hal_mem_map(kept, &data), ARVO_HAL_OK);
    EXPECT_EQ(data[(1 << 20) - 1], 0xa5);

    arvo_hal_mem_t again = 0;
    EXPECT_EQ(arvo_hal_mem_import(ion_, &again, handle), ARVO_HAL_ERR_NOT_FOUND);
    EXPECT_EQ(arvo_hal_mem_free(kept), ARVO_HAL_OK);
    EXPECT_EQ(listDir("/dev/shm"), shmBefore);
}

} // namespace
