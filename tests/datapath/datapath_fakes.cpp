#include "datapath_fakes.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstring>

#include <ostr/Bus.h>

#include "usbconn.h"

namespace {

std::mutex logMutex;
QStringList logMessages;

void captureMessage(QtMsgType, const QMessageLogContext &context, const QString &message)
{
    std::lock_guard<std::mutex> guard(logMutex);
    const QString category = QString::fromLatin1(context.category ? context.category : "");
    logMessages.append(category == QLatin1String("default") ? message : category + ": " + message);
}

std::mutex busMutex;
std::vector<QDBusMessage> busMessages;

} // namespace

LogCapture::LogCapture()
{
    {
        std::lock_guard<std::mutex> guard(logMutex);
        logMessages.clear();
    }
    previous_ = qInstallMessageHandler(captureMessage);
}

LogCapture::~LogCapture()
{
    qInstallMessageHandler(previous_);
}

QStringList LogCapture::messages() const
{
    std::lock_guard<std::mutex> guard(logMutex);
    return logMessages;
}

bool LogCapture::contains(const QString &text) const
{
    return count(text) > 0;
}

int LogCapture::count(const QString &text) const
{
    std::lock_guard<std::mutex> guard(logMutex);
    int n = 0;
    for (const QString &message : qAsConst(logMessages))
        n += message.contains(text) ? 1 : 0;
    return n;
}

TestBuffer::TestBuffer(const QByteArray &data, quint32 padding, quint32 physicalAddress,
                       quint32 offset)
    : UsbDBuffer(nullptr),
      data_(data),
      padding_(padding),
      physicalAddress_(physicalAddress),
      offset_(offset)
{
}

TestBuffer::~TestBuffer()
{
    if (onDelete)
        onDelete();
}

void Recorder::completed(int id, bool success)
{
    std::lock_guard<std::mutex> guard(mutex_);
    completionOrder_.push_back(id);
    completions_.emplace_back(id, success);
    changed_.notify_all();
}

void Recorder::deleted(int id)
{
    std::lock_guard<std::mutex> guard(mutex_);
    deleted_.push_back(id);
    changed_.notify_all();
}

bool Recorder::waitDeleted(int count)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(10),
                             [&] { return int(deleted_.size()) >= count; });
}

std::vector<int> Recorder::completionOrder() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return completionOrder_;
}

Recorder::Outcome Recorder::outcome(int id) const
{
    std::lock_guard<std::mutex> guard(mutex_);
    for (const auto &completion : completions_) {
        if (completion.first == id)
            return completion.second ? Succeeded : Failed;
    }
    return None;
}

int Recorder::completions(int id) const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return int(std::count_if(completions_.begin(), completions_.end(),
                             [id](const auto &completion) { return completion.first == id; }));
}

bool Recorder::wasDeleted(int id) const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return std::find(deleted_.begin(), deleted_.end(), id) != deleted_.end();
}

TestList::TestList(int id, Recorder *recorder, const QList<UsbDBuffer *> &buffers)
    : UsbDBufferList(buffers, nullptr), id_(id), recorder_(recorder)
{
}

TestList::~TestList()
{
    recorder_->deleted(id_);
}

// The request lists answer D-Bus callers through the platform bus; the tests look at what
// would have gone out instead of needing a bus.
bool Bus::send(const QDBusMessage &message)
{
    std::lock_guard<std::mutex> guard(busMutex);
    busMessages.push_back(message);
    return true;
}

std::vector<QDBusMessage> sentBusMessages()
{
    std::lock_guard<std::mutex> guard(busMutex);
    return busMessages;
}

void clearSentBusMessages()
{
    std::lock_guard<std::mutex> guard(busMutex);
    busMessages.clear();
}

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
