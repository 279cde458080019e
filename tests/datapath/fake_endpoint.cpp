#include "fake_endpoint.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <mutex>

#include "usbconn.h"

namespace fake_endpoint {
namespace {

std::mutex mutex;
int descriptor = -1;
std::deque<Step> steps;
std::vector<Call> recorded;
std::string bytes;
uint32_t physicalBase = 0;
const uchar *physicalData = nullptr;
size_t physicalLength = 0;

// How many of `offered` bytes the next call takes, or -1 with errno set.
long nextResult(size_t offered)
{
    if (steps.empty())
        return long(offered);
    const Step step = steps.front();
    steps.pop_front();
    if (step.error != 0) {
        errno = step.error;
        return -1;
    }
    return long(std::min(offered, step.limit));
}

} // namespace

int fd()
{
    std::lock_guard<std::mutex> guard(mutex);
    if (descriptor < 0)
        descriptor = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    return descriptor;
}

void reset()
{
    std::lock_guard<std::mutex> guard(mutex);
    steps.clear();
    recorded.clear();
    bytes.clear();
    physicalBase = 0;
    physicalData = nullptr;
    physicalLength = 0;
}

void script(const std::vector<Step> &newSteps)
{
    std::lock_guard<std::mutex> guard(mutex);
    steps.assign(newSteps.begin(), newSteps.end());
}

void mapPhysical(uint32_t base, const uchar *data, size_t length)
{
    std::lock_guard<std::mutex> guard(mutex);
    physicalBase = base;
    physicalData = data;
    physicalLength = length;
}

std::vector<Call> calls()
{
    std::lock_guard<std::mutex> guard(mutex);
    return recorded;
}

std::string captured()
{
    std::lock_guard<std::mutex> guard(mutex);
    return bytes;
}

} // namespace fake_endpoint

// These replace the C library's writev() and ioctl() for the whole test binary. Calls on the
// fake endpoint are recorded and answered by the script; all others go to the kernel.
extern "C" ssize_t writev(int fd, const struct iovec *iov, int count)
{
    using namespace fake_endpoint;
    std::unique_lock<std::mutex> guard(fake_endpoint::mutex);
    if (fd != descriptor || descriptor < 0) {
        guard.unlock();
        return ::syscall(SYS_writev, fd, iov, count);
    }
    Call call;
    size_t offered = 0;
    for (int i = 0; i < count; ++i) {
        call.entries.push_back(iov[i]);
        offered += iov[i].iov_len;
    }
    const long result = nextResult(offered);
    const int error = errno;
    call.result = result;
    recorded.push_back(call);
    size_t left = result > 0 ? size_t(result) : 0;
    for (int i = 0; i < count && left > 0; ++i) {
        const size_t take = std::min(left, iov[i].iov_len);
        bytes.append(static_cast<const char *>(iov[i].iov_base), take);
        left -= take;
    }
    errno = error;
    return result;
}

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept
{
    using namespace fake_endpoint;
    va_list args;
    va_start(args, request);
    void *argument = va_arg(args, void *);
    va_end(args);

    std::unique_lock<std::mutex> guard(fake_endpoint::mutex);
    if (fd != descriptor || descriptor < 0) {
        guard.unlock();
        return int(::syscall(SYS_ioctl, fd, request, argument));
    }
    if (request != kUsbPhysTransferIoctl) {
        errno = ENOTTY;
        return -1;
    }
    UsbPhysTransfer record;
    std::memcpy(&record, argument, sizeof record);
    Call call;
    call.physical = true;
    call.physicalAddress = record.physicalAddress;
    call.length = record.length;
    const long result = nextResult(record.length);
    const int error = errno;
    call.result = result;
    recorded.push_back(call);
    if (result > 0) {
        // An address outside the registered region is recorded but contributes "?" bytes,
        // which no expected stream contains.
        const size_t start = size_t(record.physicalAddress - physicalBase);
        if (physicalData != nullptr && record.physicalAddress >= physicalBase
            && start + size_t(result) <= physicalLength)
            bytes.append(reinterpret_cast<const char *>(physicalData) + start, size_t(result));
        else
            bytes.append(size_t(result), '?');
    }
    errno = error;
    return int(result);
}
