#pragma once

#include <unistd.h>

#include <utility>

namespace usbd {

// Owns one file descriptor. Move-only, so a descriptor can be neither leaked on an early
// return nor closed twice; every descriptor the project opens itself lives in one of these.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() { reset(); }

    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    UniqueFd(UniqueFd &&other) noexcept : fd_(other.release()) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept
    {
        if (this != &other)
            reset(other.release());
        return *this;
    }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    explicit operator bool() const { return valid(); }

    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1)
    {
        const int old = std::exchange(fd_, fd);
        if (old >= 0)
            ::close(old);
    }

private:
    int fd_ = -1;
};

} // namespace usbd
