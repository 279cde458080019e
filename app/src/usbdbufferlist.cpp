#include "usbdbufferlist.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include <QDBusError>
#include <QtEndian>

#include <ostr/Bus.h>

#include "logging.h"
#include "usbdbuffer.h"

namespace {

constexpr char kFailedToSend[] = "Failed to send buffer";
constexpr qint32 kStatusSent = 0;
constexpr qint32 kStatusFailed = -1;

} // namespace

UsbDBufferList::UsbDBufferList(const QList<UsbDBuffer *> &buffers, QObject *parent)
    : QObject(parent), buffers_(buffers)
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
    : UsbDBufferList(buffers, parent), message_(message)
{
}

UsbDDBusBufferList::~UsbDDBusBufferList() = default;

void UsbDDBusBufferList::success()
{
    Bus::send(message_.createReply());
}

void UsbDDBusBufferList::fail()
{
    Bus::send(message_.createErrorReply(QDBusError::Failed, QString::fromLatin1(kFailedToSend)));
}

UsbDSocketBufferList::UsbDSocketBufferList(const QList<UsbDBuffer *> &buffers,
                                           const UsbDSocketConnectionPtr &connection,
                                           quint32 requestId, QObject *parent)
    : UsbDBufferList(buffers, parent), connection_(connection), requestId_(requestId)
{
}

UsbDSocketBufferList::~UsbDSocketBufferList() = default;

void UsbDSocketBufferList::success()
{
    respond(kStatusSent);
}

void UsbDSocketBufferList::fail()
{
    respond(kStatusFailed);
}

void UsbDSocketBufferList::respond(qint32 status)
{
    uchar record[8];
    qToLittleEndian<quint32>(requestId_, record);
    qToLittleEndian<qint32>(status, record + 4);

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
