#pragma once

#include <string>

#include <sys/types.h>

// A private dbus-daemon for one test process: its own socket in a temporary directory, so the
// tests never touch the machine's buses. Stopped (and its directory removed) by stop() or the
// destructor.
class TestBus {
public:
    TestBus() = default;
    ~TestBus() { stop(); }
    TestBus(const TestBus &) = delete;
    TestBus &operator=(const TestBus &) = delete;

    // Starts the daemon and waits for its address; false (with a message on stderr) on failure.
    bool start();
    void stop();

    const std::string &address() const { return address_; }

private:
    pid_t pid_ = -1;
    std::string dir_;
    std::string address_;
};
