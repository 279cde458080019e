#include "datapath_fakes.h"

#include <algorithm>
#include <chrono>

#include <ostr/Bus.h>

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
