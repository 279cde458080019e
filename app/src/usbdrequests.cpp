// Turning the D-Bus send calls into transfer requests.

#include <memory>

#include <usbd/dbusmaps.h>

#include "usbd.h"
#include "usbdatain.h"
#include "usbdbuffer.h"
#include "usbdbufferlist.h"

namespace {

using usbd::dbusmaps::FilePiece;
using usbd::dbusmaps::ShmPiece;

UsbDBuffer *makeBuffer(const FilePiece &piece)
{
    return new UsbDBufferPath(piece.path, piece.offset, piece.size, piece.elementAlignment,
                              piece.elementPadding, piece.sessionId, nullptr);
}

UsbDBuffer *makeBuffer(const ShmPiece &piece)
{
    return new UsbDBufferArvoHandle(piece.handle, 0, piece.size, piece.elementAlignment,
                                    piece.elementPadding, piece.usePhysicalAddress, piece.sessionId,
                                    nullptr);
}

// Queues the request, or, when it did not pass its checks, answers it with the error at once and
// releases it with its buffers: nothing of it is sent.
void queueOrFail(UsbDataIn *queue, bool valid, std::unique_ptr<UsbDBufferList> request)
{
    if (!valid) {
        request->fail();
        return;
    }
    queue->send_data(request.release());
}

// One request of the decoded pieces. When a map failed its checks (decoded false) the whole
// request fails; only keys and types were checked: values (a negative padding, a path that
// names no regular file, a range past the end) are the buffers' and transports' to refuse when
// the request's turn comes. The pieces of the maps before a failing one still become buffers,
// each noting its values at debug level, so that the log shows how far the request got.
template <typename Piece>
void queuePieces(UsbDataIn *queue, bool decoded, const QList<Piece> &pieces,
                 const QDBusMessage &msg)
{
    QList<UsbDBuffer *> buffers;
    for (const Piece &piece : pieces)
        buffers.append(makeBuffer(piece));
    queueOrFail(queue, decoded, std::make_unique<UsbDDBusBufferList>(buffers, msg, nullptr));
}

} // namespace

void UsbD::send_data(const QByteArray &usb_data, uchar usb_data_len, const QDBusMessage &msg)
{
    // A length beyond the bytes sent would read past the array: refused with the error reply.
    queueOrFail(
        dataIn_, usb_data_len <= usb_data.size(),
        std::make_unique<UsbDDBusBufferList>(
            QList<UsbDBuffer *>{new UsbDBufferMem(usb_data, 0, usb_data_len, 0, 0, 0, nullptr)},
            msg, nullptr));
}

void UsbD::send_file(QList<QVariantMap> file_list, const QDBusMessage &msg)
{
    QList<FilePiece> pieces;
    const bool decoded = usbd::dbusmaps::decodeFileMaps(file_list, &pieces);
    queuePieces(dataIn_, decoded, pieces, msg);
}

void UsbD::send_shm_data(QList<QVariantMap> shm_handle_list, const QDBusMessage &msg)
{
    QList<ShmPiece> pieces;
    const bool decoded = usbd::dbusmaps::decodeShmMaps(shm_handle_list, &pieces);
    queuePieces(dataIn_, decoded, pieces, msg);
}
