#include "usbdatain.h"

#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <mutex>

#include <QDebug>
#include <QFile>

#include "conn.h"
#include "logging.h"
#include "usbdbufferlist.h"

namespace {

// Most bytes taken from the OUT endpoint per read.
constexpr qint64 kReceiveChunk = 1024 * 1024;

// The thread that runs the transfer loop, for interrupt(). One per process: the socket server
// signals "the" transfer thread. The mutex makes sure a thread is signalled only while it is
// recorded, i.e. after its SIGUSR1 handler exists and before it ends.
std::mutex transferThreadMutex;
bool transferThreadRecorded = false;
pthread_t transferThreadId;

// Does nothing: its only purpose is that SIGUSR1 interrupts the transport's blocking call with
// EINTR (no SA_RESTART) instead of ending the process.
void onInterruptSignal(int)
{
}

// Receives on the one OUT endpoint are taken one after another: two readers at once would
// split the host's stream between two files.
std::mutex receiveMutex;

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
    std::lock_guard<std::mutex> guard(transferThreadMutex);
    if (transferThreadRecorded)
        pthread_kill(transferThreadId, SIGUSR1);
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
    // The handler must exist before the thread can be signalled: SIGUSR1's default action
    // would end the process.
    struct sigaction action = {};
    action.sa_handler = onInterruptSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    sigaction(SIGUSR1, &action, nullptr);
    sigset_t interruptSet;
    sigemptyset(&interruptSet);
    sigaddset(&interruptSet, SIGUSR1);
    pthread_sigmask(SIG_UNBLOCK, &interruptSet, nullptr);
    {
        std::lock_guard<std::mutex> guard(transferThreadMutex);
        transferThreadId = pthread_self();
        transferThreadRecorded = true;
    }

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
            bool sent = false;
            for (Conn *connection : qAsConst(connections_)) {
                if (connection->supportsLinkType(linkType) && connection->transfer(request)) {
                    sent = true;
                    break;
                }
            }
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

    std::lock_guard<std::mutex> guard(transferThreadMutex);
    if (transferThreadRecorded && pthread_equal(transferThreadId, pthread_self()))
        transferThreadRecorded = false;
}

usbd_worker::usbd_worker(int descriptor, const QString &path, int size, QObject *parent)
    : QObject(parent), descriptor_(descriptor), path_(path), size_(size)
{
}

void usbd_worker::process()
{
    {
        std::lock_guard<std::mutex> guard(receiveMutex);

        // Opening creates or truncates the file even when nothing is to be received.
        QFile file(path_);
        const bool opened = file.open(QIODevice::WriteOnly);
        if (!opened)
            qCWarning(lcUsbd) << "cannot open" << path_ << "for writing:" << file.errorString();

        qint64 received = 0;
        if (size_ > 0) {
            std::unique_ptr<char[]> buffer(new char[kReceiveChunk]);
            bool writeFailed = !opened;
            while (received < size_) {
                const ssize_t count
                    = ::read(descriptor_, buffer.get(), size_t(qMin(qint64(size_) - received, kReceiveChunk)));
                if (count < 0) {
                    if (errno == EINTR)
                        continue;
                    const int error = errno;
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
            if (received < size_)
                qCWarning(lcUsbd, "file receive ended early: got %lld of %d bytes",
                          static_cast<long long>(received), size_);
        }
        file.close();
    }
    emit finished();
}
