#include "iosconn.h"

#include <time.h>

#include <cstring>
#include <vector>

#include <QDebug>

#include <libiosconn.h>

#include "blockingcalls.h"
#include "logging.h"
#include "usbdbuffer.h"
#include "usbdbufferlist.h"

namespace {

// The last argument of the library's send calls; its meaning is the library's.
constexpr int kMfiSendFlags = 1;
constexpr int kMfiRecordFlags = 10;

// One record call, which a client's interrupt can end (or keep from starting).
template <typename Send>
int sendRecord(Send send)
{
    auto &calls = transferthread::calls();
    calls.enter(BlockingCalls::kOtherCall);
    const int result = transferthread::interrupted() ? -1 : send();
    calls.leave();
    return transferthread::interrupted() ? -1 : result;
}

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
    // A null address would make the frames below send zeros instead of the data.
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

    if (!sendFrames(&header, buffer->virtualAddress() + buffer->offset(), size, requestOffset))
        return false;

    // Padding goes out in frames like data, from the one zero block, so that however much a
    // client asks for costs no memory and every byte accepted is sent or the request fails.
    if (padding != 0 && !sendFrames(&header, nullptr, padding, requestOffset))
        return false;
    return true;
}

bool IOSConn::sendFrames(MfiFrameHeader *header, const uchar *data, quint32 size,
                         quint32 &requestOffset)
{
    static const uchar kZeros[kMfiMaxFramePayload] = {};
    auto &calls = transferthread::calls();
    quint32 remaining = size;
    int failures = 0;
    while (remaining != 0) {
        const uchar *payload = data ? data + (size - remaining) : kZeros;
        const quint32 frameLength = qMin(remaining, kMfiMaxFramePayload);
        header->offset = requestOffset;
        header->length = frameLength;
        // A client's interrupt ends the transfer, also between retries: the retry rule is for
        // a link that is busy, not for a request its client no longer wants.
        calls.enter(BlockingCalls::kOtherCall);
        const bool interrupted = transferthread::interrupted();
        const int result = interrupted ? -1
                                       : iosconn_send_with_header(kMfiLinkId, header, int(sizeof(*header)),
                                                                  payload, int(frameLength), kMfiSendFlags);
        calls.leave();
        if (interrupted || transferthread::interrupted()) {
            qCWarning(lcIosConn) << "transfer interrupted";
            return false;
        }
        // In 64 bits: a library result near INT_MIN must not wrap into a large success.
        const qint64 written = qint64(result) - kMfiFrameHeaderSize;
        if (data)
            qCDebug(lcIosConn) << "MFI send data" << "remaining:" << remaining
                               << "current frame size:" << frameLength << "bytes_written" << written;
        else
            qCDebug(lcIosConn) << "write aligned padding size" << result;
        // A frame of which nothing was taken (the library's "busy": just the header's 32) is
        // not progress either: it counts as a failed attempt, so a link that stays busy ends
        // the transfer instead of spinning.
        if (written > 0) {
            // A library that reports more than it was given must not move us past the frame.
            const quint32 accepted = qMin(quint32(written), frameLength);
            remaining -= accepted;
            requestOffset += accepted;
            failures = 0;
            continue;
        }
        if (failures == kMfiMaxRetries) {
            qCDebug(lcIosConn) << "send error, ret value =" << written;
            qCWarning(lcIosConn) << "frame not taken after" << kMfiMaxRetries + 1
                                 << "attempts: transfer failed";
            return false;
        }
        ++failures;
        // The wait is one bracketed call, so an interrupt ends it at once.
        const timespec delay{0, long(kMfiRetryDelayUs) * 1000};
        calls.enter(BlockingCalls::kOtherCall);
        if (!transferthread::interrupted())
            nanosleep(&delay, nullptr);
        calls.leave();
        qCDebug(lcIosConn) << "MFI usb data send err,ret value =" << written << "retry for" << failures
                           << "times";
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

    if (sendRecord([record] { return iosconn_send_file(kMfiLinkId, record, kMfiRecordFlags); }) <= 0) {
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

    if (sendRecord([&record] { return iosconn_send_shm(kMfiLinkId, &record, kMfiRecordFlags); }) <= 0) {
        qWarning("failed send shm\n");
        return false;
    }
    requestOffset += buffer->size() + buffer->elementPadding();
    return true;
}
