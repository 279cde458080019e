#pragma once

#include <QDBusMessage>
#include <QList>
#include <QObject>
#include <QSharedPointer>

#include <usbd/unique_fd.h>

class UsbDBuffer;

// One transfer request: ordered buffers it owns, and the way to answer the requester.
// Exactly one of success() or fail() is called, then the list is deleted with its buffers.
class UsbDBufferList : public QObject {
    Q_OBJECT
public:
    explicit UsbDBufferList(const QList<UsbDBuffer *> &buffers, QObject *parent = nullptr);
    ~UsbDBufferList() override;

    virtual QList<UsbDBuffer *> buffers();
    virtual void success() = 0;
    virtual void fail() = 0;

protected:
    QList<UsbDBuffer *> buffers_;
};

// Answers a D-Bus method call with a delayed reply.
class UsbDDBusBufferList : public UsbDBufferList {
    Q_OBJECT
public:
    UsbDDBusBufferList(const QList<UsbDBuffer *> &buffers, const QDBusMessage &message,
                       QObject *parent);
    ~UsbDDBusBufferList() override;

    void success() override;
    void fail() override;

private:
    QDBusMessage message_;
};

// Keeps a socket client's connection open, under its descriptor number, for as long as any of
// its requests is pending: the socket server drops its own reference when the client hangs up,
// and the descriptor is closed only when the last pending request has answered. A response can
// therefore never reach another connection that was given the same number in the meantime.
class UsbDSocketConnection {
public:
    explicit UsbDSocketConnection(int fd) : fd_(fd) {}

    int fd() const { return fd_.get(); }

private:
    usbd::UniqueFd fd_; // closed when the last reference goes
};
using UsbDSocketConnectionPtr = QSharedPointer<UsbDSocketConnection>;

// Answers a socket client with an 8-byte response on its connection.
class UsbDSocketBufferList : public UsbDBufferList {
    Q_OBJECT
public:
    UsbDSocketBufferList(const QList<UsbDBuffer *> &buffers,
                         const UsbDSocketConnectionPtr &connection, quint32 requestId,
                         QObject *parent);
    ~UsbDSocketBufferList() override;

    void success() override;
    void fail() override;

    int fd() const { return connection_ ? connection_->fd() : -1; }
    quint32 requestId() const { return requestId_; }

private:
    void respond(qint32 status);

    UsbDSocketConnectionPtr connection_;
    quint32 requestId_;
};
