#include "usbdsocket.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <QByteArray>
#include <QHash>
#include <QList>

#include <usbd/unique_fd.h>

#include "logging.h"
#include "paths.h"
#include "usbdatain.h"
#include "usbdbuffer.h"
#include "usbdbufferlist.h"
#include "usbdsocketrequest.h"

// How connections end, and why:
//
// - Each live connection is held by one UsbDSocketConnectionPtr in clients_, and each queued
//   request holds another. The descriptor is closed only when the last of them goes, so while a
//   response is pending its number cannot be handed to a new connection or file, and a late
//   response can only ever reach the client that asked for it (or fail on its gone peer).
// - Hang-up or error: the descriptor leaves the epoll set before the server drops its reference;
//   a descriptor kept open by a pending request would otherwise keep reporting the hang-up.
// - A read of 0 bytes: the peer has shut down its sending side, typically to wait for its
//   responses. The readable event would stay set forever, so the connection is no longer read
//   (removed from epoll, the server's reference dropped) while pending requests can still write
//   their responses through their own references. Once they have, the descriptor is closed.
// - A send request whose entries or memory data run past the bytes of the read is dropped like a
//   short read (a debug line says so): no response, the connection stays open.
//   The client broke the framing, and a failure response would look like the answer to a request
//   that the daemon could not even decode.

namespace {

constexpr int kMaxEvents = 32;
constexpr int kListenBacklog = 32;
// While accept() fails for want of descriptors, the listening socket stays readable; it is left
// out of the epoll set for this long instead of failing again at the speed of the loop.
constexpr int kAcceptPauseMs = 100;

qint64 monotonicMs()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return qint64(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

class SocketServer {
public:
    explicit SocketServer(UsbDataIn *queue) : queue_(queue) {}

    bool setUp();
    [[noreturn]] void run();

private:
    void closeDescriptor(int fd);
    void acceptClient();
    void pauseAccepting();
    void resumeAcceptingIfDue();
    void stopReading(int fd);
    void readRequest(const UsbDSocketConnectionPtr &client);
    void queueSendRequest(const UsbDSocketConnectionPtr &client);

    UsbDataIn *queue_;
    usbd::UniqueFd epoll_;
    usbd::UniqueFd listener_;
    QHash<int, UsbDSocketConnectionPtr> clients_;
    qint64 acceptPausedUntilMs_ = -1; // -1: the listener is in the epoll set
    usbd::SocketRequest request_;     // reused so that its entry vector keeps its capacity
    // One receive buffer for every client: each read is one whole request.
    unsigned char buffer_[usbd::kSocketMaxRequestSize];
};

bool SocketServer::setUp()
{
    epoll_.reset(epoll_create1(EPOLL_CLOEXEC));
    if (!epoll_) {
        qCWarning(lcUsbdSocket) << "epoll_create1() failed:" << epoll_.get();
        return false;
    }

    // Non-blocking, so that a client that goes away between the readiness report and accept()
    // cannot stall every other client.
    listener_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!listener_) {
        qCWarning(lcUsbdSocket) << "socket() failed:" << listener_.get();
        return false;
    }

    // A file left at the path makes bind() fail, and the front end stays off for this run:
    // removing it could take the socket away from another running daemon.
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    static_assert(sizeof(usbd::kSocketPath) <= sizeof(address.sun_path), "socket path too long");
    std::memcpy(address.sun_path, usbd::kSocketPath, sizeof(usbd::kSocketPath));
    int result =
        bind(listener_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
    if (result < 0) {
        qCWarning(lcUsbdSocket) << "bind() failed:" << result;
        return false;
    }

    result = listen(listener_.get(), kListenBacklog);
    if (result < 0) {
        qCWarning(lcUsbdSocket) << "listen() failed:" << result;
        return false;
    }

    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = listener_.get();
    result = epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, listener_.get(), &event);
    if (result < 0) {
        qCWarning(lcUsbdSocket) << "epoll_ctl() failed:" << result;
        return false;
    }
    return true;
}

void SocketServer::run()
{
    epoll_event events[kMaxEvents];
    for (;;) {
        int timeoutMs = -1;
        if (acceptPausedUntilMs_ >= 0) {
            resumeAcceptingIfDue();
            if (acceptPausedUntilMs_ >= 0)
                timeoutMs = int(qMax<qint64>(1, acceptPausedUntilMs_ - monotonicMs()));
        }

        const int count = epoll_wait(epoll_.get(), events, kMaxEvents, timeoutMs);
        // Nothing to log for 0 or an interrupted wait: just wait again.
        for (int i = 0; i < count; ++i) {
            const int fd = events[i].data.fd;
            if (events[i].events & (EPOLLERR | EPOLLHUP)) {
                qCWarning(lcUsbdSocket) << "closing" << fd;
                closeDescriptor(fd);
            } else if (fd == listener_.get()) {
                acceptClient();
            } else if (const UsbDSocketConnectionPtr client = clients_.value(fd)) {
                readRequest(client);
            }
        }
    }
}

void SocketServer::closeDescriptor(int fd)
{
    epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
    if (fd == listener_.get()) {
        // The front end accepts no one from now on; connected clients are still served.
        listener_.reset();
        acceptPausedUntilMs_ = -1;
        return;
    }
    // Closes the descriptor now, or when the last pending request of the client has answered.
    clients_.remove(fd);
}

void SocketServer::acceptClient()
{
    usbd::UniqueFd client(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!client) {
        const int error = errno;
        qCWarning(lcUsbdSocket) << "accept() failed:" << client.get();
        if (error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM)
            pauseAccepting();
        return;
    }

    // A client that cannot be served is closed (by UniqueFd) rather than left connected and
    // unread, where it would wait for responses forever.
    const int flags = fcntl(client.get(), F_GETFL);
    if (flags < 0) {
        qCWarning(lcUsbdSocket) << "fcntl() failed:" << flags;
        return;
    }
    const int result = fcntl(client.get(), F_SETFL, flags | O_NONBLOCK);
    if (result < 0) {
        qCWarning(lcUsbdSocket) << "fcntl() failed:" << result;
        return;
    }

    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = client.get();
    const int added = epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, client.get(), &event);
    if (added < 0) {
        qWarning("epoll_ctl() failed: %d", added);
        return;
    }

    const int fd = client.release();
    clients_.insert(fd, UsbDSocketConnectionPtr::create(fd));
}

void SocketServer::pauseAccepting()
{
    if (epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, listener_.get(), nullptr) == 0)
        acceptPausedUntilMs_ = monotonicMs() + kAcceptPauseMs;
}

void SocketServer::resumeAcceptingIfDue()
{
    if (monotonicMs() < acceptPausedUntilMs_)
        return;
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = listener_.get();
    const int result = epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, listener_.get(), &event);
    if (result < 0) {
        qCWarning(lcUsbdSocket) << "epoll_ctl() failed:" << result;
        acceptPausedUntilMs_ = monotonicMs() + kAcceptPauseMs;
        return;
    }
    acceptPausedUntilMs_ = -1;
}

void SocketServer::stopReading(int fd)
{
    qCDebug(lcUsbdSocket) << "end of data from" << fd << "- no longer read";
    epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
    clients_.remove(fd);
}

void SocketServer::readRequest(const UsbDSocketConnectionPtr &client)
{
    const ssize_t length = read(client->fd(), buffer_, sizeof buffer_);
    if (length == 0) {
        stopReading(client->fd());
        return;
    }

    switch (usbd::parseSocketRequest(buffer_, length < 0 ? 0 : size_t(length), &request_)) {
    case usbd::SocketRequestKind::Send:
        queueSendRequest(client);
        break;
    case usbd::SocketRequestKind::Interrupt:
        queue_->interrupt();
        break;
    case usbd::SocketRequestKind::Ignored:
        break;
    case usbd::SocketRequestKind::TooShort:
        qCWarning(lcUsbdSocket) << "not enough data for request";
        break;
    case usbd::SocketRequestKind::Malformed:
        qCDebug(lcUsbdSocket) << "malformed request: entries or data past the bytes read";
        break;
    }
}

void SocketServer::queueSendRequest(const UsbDSocketConnectionPtr &client)
{
    QList<UsbDBuffer *> buffers;
    buffers.reserve(int(request_.entries.size()));
    for (const usbd::SocketRequestEntry &entry : request_.entries) {
        if (entry.type == usbd::kSocketEntryMemory) {
            // The receive buffer is reused by the next read, so the data is copied here, once;
            // the copy holds exactly the data, hence the buffer's offset 0.
            const QByteArray data(reinterpret_cast<const char *>(buffer_) + entry.offset,
                                  int(entry.size));
            buffers.append(new UsbDBufferMem(data, 0, entry.size, entry.elementAlignment,
                                             entry.elementPadding, 0, nullptr));
        } else {
            buffers.append(new UsbDBufferArvoHandle(entry.handle, entry.offset, entry.size,
                                                    entry.elementAlignment, entry.elementPadding,
                                                    true, 0, nullptr));
        }
    }
    // The queue takes ownership; the response is written when the worker completes the list.
    queue_->send_data(new UsbDSocketBufferList(buffers, client, request_.requestId, nullptr));
}

} // namespace

UsbDSocket::UsbDSocket(UsbDataIn *queue) : QObject(nullptr), queue_(queue)
{
}

void UsbDSocket::process()
{
    SocketServer server(queue_);
    if (!server.setUp())
        return; // the daemon goes on without the socket front end
    server.run();
}
