#include "iosconn.h"

#include <cstring>
#include <vector>

#include <QDebug>
#include <QThread>

#include <libiosconn.h>

#include "logging.h"
#include "usbdbuffer.h"
#include "usbdbufferlist.h"

namespace {

// The last argument of the library's send calls; its meaning is the library's.
constexpr int kMfiSendFlags = 1;
constexpr int kMfiRecordFlags = 10;

} // namespace

IOSConn::IOSConn(QObject *parent) : Conn(parent)
{
    iosconn_init();
}

bool IOSConn::supportsLinkType(OstrTypes::E_LinkType type)
{
    return type == OstrTypes::LinkTypeMfi || type == OstrTypes::LinkTypeWifi;
}

bool IOSConn::start()
{
    qCDebug(lcIosConn) << "MFI start";
    iosconn_start(kMfiLinkId);
    return true;
}

bool IOSConn::stop()
{
    return true;
}

bool IOSConn::transfer(UsbDBufferList *request)
{
    // Sizes are summed in 64 bits and the request refused if they do not fit the records'
    // 32-bit fields, instead of telling the receiver a wrapped total.
    quint64 total = 0;
    for (UsbDBuffer *buffer : request->buffers())
        total += quint64(buffer->size()) + buffer->elementPadding();
    if (total > 0xFFFFFFFFu) {
        qWarning() << "request too large for the MFi link:" << total << "bytes";
        return false;
    }

    quint32 requestOffset = 0;
    for (UsbDBuffer *buffer : request->buffers()) {
        bool sent;
        if (auto *file = qobject_cast<UsbDBufferPath *>(buffer))
            sent = transfer(file, quint32(total), requestOffset);
        else if (auto *shm = qobject_cast<UsbDBufferArvoHandle *>(buffer))
            sent = transfer(shm, quint32(total), requestOffset);
        else
            sent = transfer(buffer, quint32(total), requestOffset);
        if (!sent)
            return false;
    }
    return true;
}

bool IOSConn::transfer(UsbDBuffer *buffer, quint32 total, quint32 &requestOffset)
{
    if (!buffer->map()) {
        qWarning() << "failed to map buffer";
        return false;
    }
    const quint32 size = buffer->size();
    const quint32 padding = buffer->elementPadding();
    qDebug() << "buffer to transfer size:" << size << "padding:" << padding
             << "offset:" << requestOffset << "totalSize:" << total;

    MfiFrameHeader header{};
    header.marker = kMfiHeaderMarker;
    header.total = total;
    header.sessionId = buffer->sessionId();

    const uchar *data = buffer->virtualAddress() + buffer->offset();
    quint32 remaining = size;
    int failures = 0;
    while (remaining != 0) {
        const uchar *payload = data + (size - remaining);
        const quint32 frameLength = qMin(remaining, kMfiMaxFramePayload);
        header.offset = requestOffset;
        header.length = frameLength;
        const int result = iosconn_send_with_header(kMfiLinkId, &header, int(sizeof(header)),
                                                    payload, int(frameLength), kMfiSendFlags);
        // In 64 bits: a library result near INT_MIN must not wrap into a large success.
        const qint64 written = qint64(result) - kMfiFrameHeaderSize;
        qCDebug(lcIosConn) << "MFI send data" << "remaining:" << remaining
                           << "current frame size:" << frameLength << "bytes_written" << written;
        if (written >= 0) {
            // A library that reports more than it was given must not move us past the frame.
            const quint32 accepted = qMin(quint32(written), frameLength);
            remaining -= accepted;
            requestOffset += accepted;
            failures = 0;
            continue;
        }
        if (failures == kMfiMaxRetries) {
            qCDebug(lcIosConn) << "send error, ret value =" << written;
            return false;
        }
        ++failures;
        QThread::usleep(kMfiRetryDelayUs);
        qCDebug(lcIosConn) << "MFI usb data send err,ret value =" << written << "retry for" << failures
                           << "times";
    }

    if (padding != 0) {
        // One frame, not retried: its outcome does not change the request's.
        const std::vector<uchar> zeros(padding, 0);
        header.offset = requestOffset;
        header.length = padding;
        const int result = iosconn_send_with_header(kMfiLinkId, &header, int(sizeof(header)),
                                                    zeros.data(), int(padding), kMfiSendFlags);
        requestOffset += padding;
        qCDebug(lcIosConn) << "write aligned padding size" << result;
    }
    return true;
}

bool IOSConn::transfer(UsbDBufferPath *buffer, quint32 total, quint32 &requestOffset)
{
    const QByteArray path = buffer->path().toUtf8();
    if (path.size() > 0xFFFF) {
        qWarning("failed send file\n");
        return false;
    }
    std::vector<char> storage(offsetof(MfiFileRecord, path) + size_t(path.size()) + 1, 0);
    auto *record = reinterpret_cast<MfiFileRecord *>(storage.data());
    record->fileOffset = buffer->offset();
    record->total = total;
    record->requestOffset = requestOffset;
    record->size = buffer->size();
    record->padding = buffer->elementPadding();
    record->sessionId = buffer->sessionId();
    record->pathLength = quint16(path.size());
    memcpy(storage.data() + offsetof(MfiFileRecord, path), path.constData(), size_t(path.size()));

    if (iosconn_send_file(kMfiLinkId, record, kMfiRecordFlags) <= 0) {
        qWarning("failed send file\n");
        return false;
    }
    requestOffset += buffer->size() + buffer->elementPadding();
    return true;
}

bool IOSConn::transfer(UsbDBufferArvoHandle *buffer, quint32 total, quint32 &requestOffset)
{
    MfiShmRecord record{};
    record.offset = buffer->offset();
    record.total = total;
    record.requestOffset = requestOffset;
    record.size = buffer->size();
    record.padding = buffer->elementPadding();
    record.sessionId = buffer->sessionId();
    record.handle = buffer->handle();

    if (iosconn_send_shm(kMfiLinkId, &record, kMfiRecordFlags) <= 0) {
        qWarning("failed send shm\n");
        return false;
    }
    requestOffset += buffer->size() + buffer->elementPadding();
    return true;
}
