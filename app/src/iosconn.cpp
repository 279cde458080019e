#include "iosconn.h"

#include <cstring>
#include <vector>

#include <QDebug>
#include <QThread>

#include <libiosconn.h>

#include "logging.h"
#include "usbdbuffer.h"
#include "usbdbufferlist.h"
#include "zeroblock.h"

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
    const QList<UsbDBuffer *> buffers = request->buffers();
    // The request total is a 32-bit field of every record: the sum wraps past 4 GiB, as the
    // receiver expects.
    quint32 total = 0;
    for (UsbDBuffer *buffer : buffers) {
        if (buffer->elementPadding() > kMfiMaxPadding) {
            qCDebug(lcIosConn) << "padding of" << buffer->elementPadding() << "bytes refused";
            qWarning() << "failed to map buffer";
            return false;
        }
        total += buffer->size() + buffer->elementPadding();
    }

    quint32 requestOffset = 0;
    for (UsbDBuffer *buffer : buffers) {
        bool sent;
        if (auto *file = qobject_cast<UsbDBufferPath *>(buffer))
            sent = transfer(file, total, requestOffset);
        else if (auto *shm = qobject_cast<UsbDBufferArvoHandle *>(buffer))
            sent = transfer(shm, total, requestOffset);
        else
            sent = transfer(buffer, total, requestOffset);
        if (!sent)
            return false;
    }
    return true;
}

bool IOSConn::transfer(UsbDBuffer *buffer, quint32 total, quint32 &requestOffset)
{
    // A buffer that says it mapped but has no address would send from address 0 + offset.
    if (!buffer->map() || (buffer->size() != 0 && buffer->virtualAddress() == nullptr)) {
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

    const uchar *const data = buffer->virtualAddress() + buffer->offset();
    quint32 remaining = size;
    int failures = 0;
    while (remaining != 0) {
        const quint32 frameLength = qMin(remaining, kMfiMaxFramePayload);
        header.offset = requestOffset;
        header.length = frameLength;
        const int result =
            iosconn_send_with_header(kMfiLinkId, &header, int(sizeof header),
                                     data + (size - remaining), int(frameLength), kMfiSendFlags);
        // In 64 bits: a result near INT_MIN must not wrap into a large success.
        const qint64 written = qint64(result) - kMfiFrameHeaderSize;
        qCDebug(lcIosConn) << "MFI send data"
                           << "remaining:" << remaining << "current frame size:" << frameLength
                           << "bytes_written" << written;
        if (written >= 0) {
            // A library that claims more than the frame must not move the next frame's start
            // past the buffer.
            const quint32 taken = quint32(qMin<qint64>(written, frameLength));
            if (taken != written)
                qCDebug(lcIosConn)
                    << "the library reported" << written << "of" << frameLength << "bytes";
            remaining -= taken;
            requestOffset += taken;
            failures = 0;
            continue;
        }
        if (failures == kMfiMaxRetries) {
            qCDebug(lcIosConn) << "send error, ret value =" << written;
            return false;
        }
        ++failures;
        QThread::usleep(kMfiRetryDelayUs);
        qCDebug(lcIosConn) << "MFI usb data send err,ret value =" << written << "retry for"
                           << failures << "times";
    }

    if (padding != 0) {
        // One frame, from zero pages that cost no memory of the padding's size.
        const ZeroBlock zeros(padding);
        if (zeros.data() == nullptr) {
            qCDebug(lcIosConn) << "no address space for" << padding << "bytes of padding";
            qWarning() << "failed to map buffer";
            return false;
        }
        header.offset = requestOffset;
        header.length = padding;
        const int result = iosconn_send_with_header(kMfiLinkId, &header, int(sizeof header),
                                                    zeros.data(), int(padding), kMfiSendFlags);
        requestOffset += padding;
        qCDebug(lcIosConn) << "write aligned padding size" << result;
    }
    return true;
}

bool IOSConn::transfer(UsbDBufferPath *buffer, quint32 total, quint32 &requestOffset)
{
    const QByteArray path = buffer->path().toUtf8();
    // The record's length field has 16 bits; no path the system can open is that long.
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
