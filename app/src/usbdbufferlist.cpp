#include "usbdbufferlist.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include <QDBusError>

#include <ostr/Bus.h>
#include <usbd/little_endian.h>
#include <usbd/protocol.h>

#include "logging.h"
#include "usbdbuffer.h"

UsbDBufferList::UsbDBufferList(const QList<UsbDBuffer *> &buffers, QObject *parent)
    : QObject(parent),
      buffers_(buffers)
{
}

UsbDBufferList::~UsbDBufferList()
{
    for (UsbDBuffer *buffer : qAsConst(buffers_))
        delete buffer;
}

QList<UsbDBuffer *> UsbDBufferList::buffers()
{
    return buffers_;
}

UsbDDBusBufferList::UsbDDBusBufferList(const QList<UsbDBuffer *> &buffers,
                                       const QDBusMessage &message, QObject *parent)
    : UsbDBufferList(buffers, parent),
      message_(message)
{
}

UsbDDBusBufferList::~UsbDDBusBufferList() = default;

void UsbDDBusBufferList::success()
{
    Bus::send(message_.createReply());
}

void UsbDDBusBufferList::fail()
{
    Bus::send(message_.createErrorReply(QDBusError::Failed,
                                        QString::fromLatin1(usbd::kFailedToSendText)));
}

UsbDSocketBufferList::UsbDSocketBufferList(const QList<UsbDBuffer *> &buffers,
                                           const UsbDSocketConnectionPtr &connection,
                                           quint32 requestId, QObject *parent)
    : UsbDBufferList(buffers, parent),
      connection_(connection),
      requestId_(requestId)
{
}

UsbDSocketBufferList::~UsbDSocketBufferList() = default;

void UsbDSocketBufferList::success()
{
    respond(usbd::kSocketStatusSent);
}

void UsbDSocketBufferList::fail()
{
    respond(usbd::kSocketStatusFailed);
}

void UsbDSocketBufferList::respond(qint32 status)
{
    uchar record[usbd::kSocketResponseSize];
    usbd::storeLe32(record + usbd::kSocketResponseIdAt, requestId_);
    usbd::storeLe32(record + usbd::kSocketResponseStatusAt, quint32(status));

    // The client may have gone: MSG_NOSIGNAL turns that into EPIPE instead of a SIGPIPE that
    // would end the daemon. The connection is non-blocking, so a full receive buffer fails too;
    // either way the response is dropped, never retried or sent in part.
    const int descriptor = fd();
    ssize_t written = ::send(descriptor, record, sizeof record, MSG_NOSIGNAL);
    if (written < 0 && errno == ENOTSOCK)
        written = ::write(descriptor, record, sizeof record);
    if (written != ssize_t(sizeof record))
        qCWarning(lcUsbdBufferList) << "failed to write response";
}
