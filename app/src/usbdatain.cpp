#include "usbdatain.h"

#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

#include <QDebug>
#include <QFile>

#include "blockingcalls.h"
#include "conn.h"
#include "logging.h"
#include "usbdbufferlist.h"

namespace {

// Most bytes taken from the OUT endpoint per read.
constexpr qint64 kReceiveChunk = 1024 * 1024;

// Receives on the one OUT endpoint are served one at a time, in the order asked: two readers
// at once would split the host's stream between two files. A receive that gives up before its
// turn leaves its place, so the ones behind it are not held up.
class ReceiveTurns {
public:
    using Deadline = std::optional<std::chrono::steady_clock::time_point>;

    uint64_t take()
    {
        std::lock_guard<std::mutex> guard(mutex_);
        return next_++;
    }

    // False when the deadline passed first; the turn is then given up.
    bool wait(uint64_t ticket, const Deadline &deadline)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        const auto ready = [&] { return serving_ == ticket; };
        if (!deadline) {
            turn_.wait(lock, ready);
            return true;
        }
        if (turn_.wait_until(lock, *deadline, ready))
            return true;
        abandoned_.insert(ticket);
        return false;
    }

    void done(uint64_t ticket)
    {
        std::lock_guard<std::mutex> guard(mutex_);
        passLocked(ticket);
    }

    // For a receive that never ran: its place is passed over.
    void abandon(uint64_t ticket)
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (serving_ == ticket)
            passLocked(ticket);
        else
            abandoned_.insert(ticket);
    }

private:
    void passLocked(uint64_t ticket)
    {
        serving_ = ticket + 1;
        while (abandoned_.erase(serving_) != 0)
            ++serving_;
        turn_.notify_all();
    }

public:

private:
    std::mutex mutex_;
    std::condition_variable turn_;
    uint64_t next_ = 0;     // guarded by mutex_
    uint64_t serving_ = 0;  // guarded by mutex_
    std::set<uint64_t> abandoned_; // guarded by mutex_
};

ReceiveTurns receiveTurns;

// Ends a receive's blocking reads at its deadline: sets the flag that the reader checks around
// every read, then signals the reader out of the read it is in.
class ReceiveDeadline {
public:
    ReceiveDeadline(BlockingCalls *calls, const ReceiveTurns::Deadline &deadline) : calls_(calls)
    {
        if (deadline)
            watcher_ = std::thread([this, when = *deadline] { watch(when); });
    }
    ~ReceiveDeadline()
    {
        {
            std::lock_guard<std::mutex> guard(mutex_);
            finished_ = true;
        }
        changed_.notify_all();
        if (watcher_.joinable())
            watcher_.join();
    }
    bool passed() const { return passed_.load(); }

private:
    void watch(std::chrono::steady_clock::time_point when)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (changed_.wait_until(lock, when, [this] { return finished_; }))
            return;
        lock.unlock();
        passed_.store(true);
        calls_->kick(BlockingCalls::kAnyCall, [] { return true; });
    }

    BlockingCalls *calls_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool finished_ = false; // guarded by mutex_
    std::atomic<bool> passed_{false};
    std::thread watcher_;
};

} // namespace

UsbDataIn::UsbDataIn(const QList<Conn *> &connections) : connections_(connections)
{
    pthread_mutex_init(&lock_, nullptr);
    pthread_cond_init(&condition_, nullptr);
    for (Conn *connection : qAsConst(connections_))
        connection->start();
}

UsbDataIn::~UsbDataIn()
{
    for (Conn *connection : qAsConst(connections_)) {
        connection->stop();
        delete connection;
    }
    // Requests still waiting get no answer, but they are not leaked.
    qDeleteAll(queue_);
    pthread_cond_destroy(&condition_);
    pthread_mutex_destroy(&lock_);
}

bool UsbDataIn::send_data(UsbDBufferList *buffers)
{
    if (buffers == nullptr) {
        qCWarning(lcUsbd) << "send_data: no request";
        return true;
    }
    pthread_mutex_lock(&lock_);
    pending_ = true;
    queue_.append(buffers);
    pthread_cond_signal(&condition_);
    pthread_mutex_unlock(&lock_);
    return true;
}

void UsbDataIn::setLinkType(OstrTypes::E_LinkType linkType)
{
    QList<UsbDBufferList *> dropped;
    pthread_mutex_lock(&lock_);
    if (linkType_ != quint8(linkType)) {
        linkType_ = quint8(linkType);
        dropped.swap(queue_);
    }
    pthread_mutex_unlock(&lock_);

    // Requests made for the old link are not sent on the new one, and they get no answer. They
    // are released here, outside the lock, so that producers are not held up by munmap() and
    // friends.
    if (!dropped.isEmpty())
        qCDebug(lcUsbd) << "link type" << int(linkType) << "dropped" << dropped.size() << "requests";
    qDeleteAll(dropped);
}

void UsbDataIn::interrupt()
{
    transferthread::interrupt();
}

void UsbDataIn::quit()
{
    pthread_mutex_lock(&lock_);
    quitting_ = true;
    pthread_cond_signal(&condition_);
    pthread_mutex_unlock(&lock_);
}

void UsbDataIn::process()
{
    transferthread::calls().attach();

    pthread_mutex_lock(&lock_);
    while (!quitting_) {
        while (!pending_ && !quitting_)
            pthread_cond_wait(&condition_, &lock_);
        pending_ = false;

        while (!queue_.isEmpty() && !quitting_) {
            UsbDBufferList *request = queue_.takeFirst();
            const auto linkType = OstrTypes::E_LinkType(linkType_);
            pthread_mutex_unlock(&lock_);

            timespec start;
            clock_gettime(CLOCK_MONOTONIC, &start);
            transferthread::beginTransfer();
            bool sent = false;
            for (Conn *connection : qAsConst(connections_)) {
                if (connection->supportsLinkType(linkType) && connection->transfer(request)) {
                    sent = true;
                    break;
                }
            }
            transferthread::endTransfer();
            if (sent) {
                timespec end;
                clock_gettime(CLOCK_MONOTONIC, &end);
                const long elapsedMs = long(end.tv_sec - start.tv_sec) * 1000
                                       + long(end.tv_nsec - start.tv_nsec) / 1000000;
                qWarning("transfer time: %ldms", elapsedMs);
                request->success();
            } else {
                request->fail();
            }
            // Deleted outside the lock: unmapping a large file can take a while, and nobody but
            // this thread can reach the request any more.
            delete request;

            pthread_mutex_lock(&lock_);
        }
    }
    pthread_mutex_unlock(&lock_);

    transferthread::calls().detach();
}

usbd_worker::usbd_worker(int descriptor, const QString &path, int size, QObject *parent)
    : usbd_worker(descriptor, path, size, 0, parent)
{
}

usbd_worker::usbd_worker(int descriptor, const QString &path, int size, uint timeMs,
                         QObject *parent)
    : QObject(parent),
      descriptor_(descriptor),
      path_(path),
      size_(size),
      timeMs_(timeMs),
      asked_(std::chrono::steady_clock::now()),
      // Taken here, in the order the receives are asked for; their threads may start in any.
      ticket_(receiveTurns.take())
{
}

usbd_worker::~usbd_worker()
{
    if (!processed_)
        receiveTurns.abandon(ticket_);
}

void usbd_worker::process()
{
    ReceiveTurns::Deadline deadline;
    if (timeMs_ > 0)
        deadline = asked_ + std::chrono::milliseconds(timeMs_);
    processed_ = true;
    const uint64_t ticket = ticket_;
    if (!receiveTurns.wait(ticket, deadline)) {
        qCWarning(lcUsbd).noquote() << "file receive timed out waiting for the endpoint:" << path_;
        emit finished();
        return;
    }

    BlockingCalls calls;
    calls.attach();
    {
        ReceiveDeadline timer(&calls, deadline);

        // Opening creates or truncates the file even when nothing is to be received.
        QFile file(path_);
        const bool opened = file.open(QIODevice::WriteOnly);
        if (!opened)
            qCWarning(lcUsbd) << "cannot open" << path_ << "for writing:" << file.errorString();

        qint64 received = 0;
        if (size_ > 0) {
            std::unique_ptr<char[]> buffer(new char[kReceiveChunk]);
            bool writeFailed = !opened;
            while (received < size_ && !timer.passed()) {
                calls.enter(BlockingCalls::kAnyCall);
                const ssize_t count = timer.passed() ? -1
                    : ::read(descriptor_, buffer.get(), size_t(qMin(qint64(size_) - received, kReceiveChunk)));
                const int error = errno;
                calls.leave();
                if (count < 0) {
                    if (timer.passed())
                        break;
                    if (error == EINTR)
                        continue;
                    qCWarning(lcUsbd) << "read() failed:" << error;
                    break;
                }
                if (count == 0)
                    break;
                // Even when the file cannot take them the bytes are read, so that the endpoint
                // stays in step with what the host sends.
                if (!writeFailed && file.write(buffer.get(), count) != count) {
                    writeFailed = true;
                    qCWarning(lcUsbd) << "cannot write" << path_ << ":" << file.errorString();
                }
                received += count;
            }
            if (received < size_ && timer.passed())
                qCWarning(lcUsbd, "file receive timed out: got %lld of %d bytes",
                          static_cast<long long>(received), size_);
            else if (received < size_)
                qCWarning(lcUsbd, "file receive ended early: got %lld of %d bytes",
                          static_cast<long long>(received), size_);
        }
        file.close();
    }
    calls.detach();
    receiveTurns.done(ticket);
    emit finished();
}
