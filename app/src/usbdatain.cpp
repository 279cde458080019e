#include "usbdatain.h"

#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>

#include <QDebug>
#include <QFile>

#include "conn.h"
#include "logging.h"
#include "transferthread.h"
#include "usbdbufferlist.h"

namespace {

// Most bytes taken from the OUT endpoint per read.
constexpr qint64 kReceiveChunk = 1024 * 1024;

// Receives on the one OUT endpoint are served one at a time, in the order asked: two readers
// at once would split the host's stream between two files. A receive whose worker is deleted
// without having run leaves its place, so the ones behind it are not held up.
class ReceiveTurns {
public:
    uint64_t take()
    {
        std::lock_guard<std::mutex> guard(mutex_);
        return next_++;
    }

    void wait(uint64_t ticket)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        turn_.wait(lock, [&] { return serving_ == ticket; });
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

    std::mutex mutex_;
    std::condition_variable turn_;
    uint64_t next_ = 0;            // guarded by mutex_
    uint64_t serving_ = 0;         // guarded by mutex_
    std::set<uint64_t> abandoned_; // guarded by mutex_
};

ReceiveTurns receiveTurns;

} // namespace

UsbDataIn::UsbDataIn(const QList<Conn *> &connections) : connections_(connections)
{
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
    usbd::PosixMutexLock lock(lock_);
    qDeleteAll(queue_);
}

bool UsbDataIn::send_data(UsbDBufferList *buffers)
{
    if (buffers == nullptr) {
        qCDebug(lcUsbd) << "send_data: no request";
        return true;
    }
    usbd::PosixMutexLock lock(lock_);
    pending_ = true;
    queue_.append(buffers);
    condition_.signal();
    return true;
}

void UsbDataIn::setLinkType(OstrTypes::E_LinkType linkType)
{
    QList<UsbDBufferList *> dropped;
    {
        usbd::PosixMutexLock lock(lock_);
        if (linkType_ == quint8(linkType))
            return;
        linkType_ = quint8(linkType);
        dropped.swap(queue_);
    }
    // Requests made for the old link are not sent on the new one, and they get no answer. They
    // are released here, outside the lock, so that producers are not held up by munmap() and
    // friends.
    if (!dropped.isEmpty())
        qCDebug(lcUsbd) << "link type" << int(linkType) << "dropped" << dropped.size()
                        << "requests";
    qDeleteAll(dropped);
}

void UsbDataIn::interrupt()
{
    if (transferThread_ != nullptr)
        transferThread_->interrupt();
}

void UsbDataIn::quit()
{
    usbd::PosixMutexLock lock(lock_);
    quitting_ = true;
    condition_.signal();
}

void UsbDataIn::process()
{
    if (transferThread_ != nullptr)
        transferThread_->attach();

    usbd::PosixMutexLock lock(lock_);
    while (!quitting_) {
        while (!pending_ && !quitting_)
            condition_.wait(lock_);
        pending_ = false;

        while (!queue_.isEmpty() && !quitting_) {
            UsbDBufferList *request = queue_.takeFirst();
            const auto linkType = OstrTypes::E_LinkType(linkType_);
            lock.unlock();
            transfer(request, linkType);
            lock.lock();
        }
    }
    lock.unlock();

    if (transferThread_ != nullptr)
        transferThread_->detach();
}

void UsbDataIn::transfer(UsbDBufferList *request, OstrTypes::E_LinkType linkType)
{
    // Deleted when done, outside the lock: unmapping a large file can take a while, and nobody
    // but this thread can reach the request any more.
    const std::unique_ptr<UsbDBufferList> owned(request);
    timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    bool sent = false;
    for (Conn *connection : qAsConst(connections_)) {
        if (connection->supportsLinkType(linkType) && connection->transfer(request)) {
            sent = true;
            break;
        }
    }
    if (!sent) {
        request->fail();
        return;
    }
    timespec end;
    clock_gettime(CLOCK_MONOTONIC, &end);
    const long elapsedMs =
        long(end.tv_sec - start.tv_sec) * 1000 + long(end.tv_nsec - start.tv_nsec) / 1000000;
    qWarning("transfer time: %ldms", elapsedMs);
    request->success();
}

usbd_worker::usbd_worker(int descriptor, const QString &path, int size, QObject *parent)
    : QObject(parent),
      descriptor_(descriptor),
      path_(path),
      size_(size),
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
    processed_ = true;
    receiveTurns.wait(ticket_);

    // Opening creates or truncates the file even when nothing is to be received.
    QFile file(path_);
    const bool opened = file.open(QIODevice::WriteOnly);
    if (!opened)
        qCDebug(lcUsbd) << "cannot open" << path_ << "for writing:" << file.errorString();

    qint64 received = 0;
    if (size_ > 0) {
        std::unique_ptr<char[]> buffer(new char[kReceiveChunk]);
        bool writeFailed = !opened;
        while (received < size_) {
            const ssize_t count = ::read(descriptor_, buffer.get(),
                                         size_t(qMin(qint64(size_) - received, kReceiveChunk)));
            if (count < 0 && errno == EINTR)
                continue; // a signal meant for the process, not for this receive
            if (count < 0) {
                qCDebug(lcUsbd) << "receive: read() failed:" << strerror(errno);
                break;
            }
            if (count == 0)
                break;
            // Even when the file cannot take them the bytes are read, so that the endpoint
            // stays in step with what the host sends.
            if (!writeFailed && file.write(buffer.get(), count) != count) {
                writeFailed = true;
                qCDebug(lcUsbd) << "cannot write" << path_ << ":" << file.errorString();
            }
            received += count;
        }
        if (received < size_)
            qCDebug(lcUsbd, "file receive ended early: got %lld of %d bytes",
                    static_cast<long long>(received), size_);
    }
    file.close();
    receiveTurns.done(ticket_);
    emit finished();
}
