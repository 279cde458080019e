#pragma once

#include <sys/uio.h>

#include <cstdint>
#include <string>
#include <vector>

#include <QtGlobal>

// The endpoint seen through writev()/ioctl() on one descriptor (a /dev/null descriptor owned by
// the fake); every other descriptor goes to the kernel unchanged.
namespace fake_endpoint {

struct Call {
    bool physical = false;          // ioctl() rather than writev()
    std::vector<iovec> entries;     // writev: the entries as given
    uint32_t physicalAddress = 0;   // ioctl: the record
    uint32_t length = 0;            // ioctl: the record
    long result = 0;
};

// How one call is answered: accept at most `limit` bytes, or fail with `error`.
struct Step {
    size_t limit = SIZE_MAX;
    int error = 0;
};

int fd();
void reset();
// Answers for the next calls, in order; calls beyond the script take everything.
void script(const std::vector<Step> &steps);
// Physical addresses from base on stand for the bytes at data (for reading ioctl transfers).
void mapPhysical(uint32_t base, const uchar *data, size_t length);

std::vector<Call> calls();
std::string captured();

} // namespace fake_endpoint
