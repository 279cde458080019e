#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <arvo_hal.h>
#include <arvo_hal_sim.h>

namespace {

// A scratch file stands in for a device node: the HAL only needs the node to exist.
class HalDevice : public ::testing::Test {
protected:
    void SetUp() override
    {
        arvo_sim_reset();
        char dirTemplate[] = "/tmp/arvo-hal-test-XXXXXX";
        ASSERT_NE(::mkdtemp(dirTemplate), nullptr);
        dir_ = dirTemplate;
        node_ = dir_ + "/ion";
        other_ = dir_ + "/vpu";
        for (const std::string &path : {node_, other_}) {
            FILE *file = std::fopen(path.c_str(), "w");
            ASSERT_NE(file, nullptr);
            std::fclose(file);
        }
    }
    void TearDown() override
    {
        arvo_sim_reset();
        ::unsetenv("ARVO_HAL_FAIL_INIT");
        ::unlink(node_.c_str());
        ::unlink(other_.c_str());
        ::rmdir(dir_.c_str());
    }

    std::string dir_;
    std::string node_;
    std::string other_;
};

TEST_F(HalDevice, SessionLifecycle)
{
    arvo_hal_handle_t handle = 0;
    EXPECT_EQ(arvo_hal_device_open(node_.c_str(), nullptr, &handle), ARVO_HAL_ERR_NOT_INITIALIZED);
    EXPECT_EQ(arvo_hal_deinitialize(), ARVO_HAL_ERR_NOT_INITIALIZED);

    ASSERT_EQ(arvo_hal_initialize(nullptr), ARVO_HAL_OK);
    EXPECT_EQ(arvo_sim_initialize_count(), 1);
    EXPECT_EQ(arvo_hal_device_open((dir_ + "/missing").c_str(), nullptr, &handle),
              ARVO_HAL_ERR_NOT_FOUND);
    EXPECT_EQ(arvo_hal_device_open(nullptr, nullptr, &handle), ARVO_HAL_ERR_INVALID);
    EXPECT_EQ(arvo_hal_device_open(node_.c_str(), nullptr, nullptr), ARVO_HAL_ERR_INVALID);

    ASSERT_EQ(arvo_hal_device_open(node_.c_str(), nullptr, &handle), ARVO_HAL_OK);
    EXPECT_NE(handle, 0u);
    uint8_t state = 0;
    ASSERT_EQ(arvo_hal_device_get_state(handle, &state), ARVO_HAL_OK);
    EXPECT_EQ(state, ARVO_HAL_DEVICE_STOPPED);
    EXPECT_EQ(arvo_hal_device_start(handle, nullptr), ARVO_HAL_OK);
    ASSERT_EQ(arvo_hal_device_get_state(handle, &state), ARVO_HAL_OK);
    EXPECT_EQ(state, ARVO_HAL_DEVICE_RUNNING);

    // A second open of the same node, however spelled, shares the device and its state, and
    // needs a close of its own.
    arvo_hal_handle_t again = 0;
    EXPECT_EQ(arvo_hal_device_open((dir_ + "/./ion").c_str(), nullptr, &again),
              ARVO_HAL_ERR_ALREADY_OPEN);
    EXPECT_EQ(again, handle);
    EXPECT_EQ(arvo_sim_device_open_count(node_.c_str()), 2);
    arvo_hal_handle_t other = 0;
    ASSERT_EQ(arvo_hal_device_open(other_.c_str(), nullptr, &other), ARVO_HAL_OK);
    EXPECT_NE(other, handle);
    ASSERT_EQ(arvo_hal_device_get_state(other, &state), ARVO_HAL_OK);
    EXPECT_EQ(state, ARVO_HAL_DEVICE_STOPPED);

    EXPECT_EQ(arvo_hal_device_close(handle), ARVO_HAL_OK);
    ASSERT_EQ(arvo_hal_device_get_state(handle, &state), ARVO_HAL_OK);
    EXPECT_EQ(state, ARVO_HAL_DEVICE_RUNNING);
    EXPECT_EQ(arvo_hal_device_stop(handle, nullptr), ARVO_HAL_OK);
    EXPECT_EQ(arvo_hal_device_close(handle), ARVO_HAL_OK);
    EXPECT_EQ(arvo_sim_device_open_count(node_.c_str()), 0);

    // A closed handle is refused everywhere, and is not handed out again straight away.
    EXPECT_EQ(arvo_hal_device_get_state(handle, &state), ARVO_HAL_ERR_INVALID);
    EXPECT_EQ(arvo_hal_device_start(handle, nullptr), ARVO_HAL_ERR_INVALID);
    EXPECT_EQ(arvo_hal_device_stop(handle, nullptr), ARVO_HAL_ERR_INVALID);
    EXPECT_EQ(arvo_hal_device_close(handle), ARVO_HAL_ERR_INVALID);
    EXPECT_EQ(arvo_hal_device_get_state(0, &state), ARVO_HAL_ERR_INVALID);
    EXPECT_EQ(arvo_hal_device_get_state(other, nullptr), ARVO_HAL_ERR_INVALID);
    arvo_hal_handle_t reopened = 0;
    ASSERT_EQ(arvo_hal_device_open(node_.c_str(), nullptr, &reopened), ARVO_HAL_OK);
    EXPECT_NE(reopened, handle);

    // Initialisation nests: only the last deinitialisation closes the devices.
    ASSERT_EQ(arvo_hal_initialize(nullptr), ARVO_HAL_OK);
    EXPECT_EQ(arvo_sim_initialize_count(), 2);
    EXPECT_EQ(arvo_hal_deinitialize(), ARVO_HAL_OK);
    EXPECT_EQ(arvo_hal_device_get_state(reopened, &state), ARVO_HAL_OK);
    EXPECT_EQ(arvo_hal_deinitialize(), ARVO_HAL_OK);
    EXPECT_EQ(arvo_hal_device_get_state(reopened, &state), ARVO_HAL_ERR_INVALID);
    EXPECT_EQ(arvo_hal_device_open(node_.c_str(), nullptr, &handle), ARVO_HAL_ERR_NOT_INITIALIZED);
}

TEST_F(HalDevice, ForcedInitialisationFailure)
{
    ::setenv("ARVO_HAL_FAIL_INIT", "-1005", 1);
    EXPECT_EQ(arvo_hal_initialize(nullptr), -1005);
    EXPECT_EQ(arvo_hal_initialize(nullptr), -1005);
    EXPECT_EQ(arvo_sim_initialize_count(), 2);
    arvo_hal_handle_t handle = 0;
    EXPECT_EQ(arvo_hal_device_open(node_.c_str(), nullptr, &handle), ARVO_HAL_ERR_NOT_INITIALIZED);

    // Only a number is taken as an order to fail.
    ::setenv("ARVO_HAL_FAIL_INIT", "no", 1);
    EXPECT_EQ(arvo_hal_initialize(nullptr), ARVO_HAL_OK);
    EXPECT_EQ(arvo_hal_device_open(node_.c_str(), nullptr, &handle), ARVO_HAL_OK);
}

TEST_F(HalDevice, RacingOpensShareOneDevice)
{
    ASSERT_EQ(arvo_hal_initialize(nullptr), ARVO_HAL_OK);
    constexpr int kThreads = 8;
    std::vector<arvo_hal_handle_t> handles(kThreads, 0);
    std::vector<int> results(kThreads, 1);
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            while (!go.load()) {
            }
            results[i] = arvo_hal_device_open(node_.c_str(), nullptr, &handles[i]);
        });
    }
    go = true;
    for (auto &thread : threads)
        thread.join();

    int fresh = 0;
    for (int i = 0; i < kThreads; ++i) {
        EXPECT_TRUE(results[i] == ARVO_HAL_OK || results[i] == ARVO_HAL_ERR_ALREADY_OPEN) << results[i];
        fresh += results[i] == ARVO_HAL_OK;
        EXPECT_EQ(handles[i], handles[0]);
    }
    EXPECT_EQ(fresh, 1);
    EXPECT_EQ(arvo_sim_device_open_count(node_.c_str()), kThreads);

    threads.clear();
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back([&, i] { results[i] = arvo_hal_device_close(handles[i]); });
    for (auto &thread : threads)
        thread.join();
    for (int result : results)
        EXPECT_EQ(result, ARVO_HAL_OK);
    EXPECT_EQ(arvo_sim_device_open_count(node_.c_str()), 0);
}

} // namespace
