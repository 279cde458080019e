#include "datapath_fakes.h"

#include <chrono>

namespace {

std::mutex logMutex;
QStringList logMessages;

void captureMessage(QtMsgType, const QMessageLogContext &context, const QString &message)
{
    std::lock_guard<std::mutex> guard(logMutex);
    const QString category = QString::fromLatin1(context.category ? context.category : "");
    logMessages.append(category == QLatin1String("default") ? message : category + ": " + message);
}

} // namespace

LogCapture::LogCapture()
{
    std::lock_guard<std::mutex> guard(logMutex);
    logMessages.clear();
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
    return !messages().filter(text).isEmpty();
}

void Recorder::completed(int id, bool ok)
{
    std::lock_guard<std::mutex> guard(mutex_);
    outcomes_[id] = ok ? Succeeded : Failed;
    order_.push_back(id);
}

void Recorder::deleted(int id)
{
    std::lock_guard<std::mutex> guard(mutex_);
    deleted_.insert(id);
    changed_.notify_all();
}

bool Recorder::waitDeleted(size_t count)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(10),
                             [&] { return deleted_.size() >= count; });
}

Recorder::Outcome Recorder::outcome(int id) const
{
    std::lock_guard<std::mutex> guard(mutex_);
    const auto it = outcomes_.find(id);
    return it == outcomes_.end() ? None : it->second;
}

bool Recorder::wasDeleted(int id) const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return deleted_.count(id) != 0;
}

std::vector<int> Recorder::order() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return order_;
}
