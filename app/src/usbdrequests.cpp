// Turning the D-Bus send calls into transfer requests.

#include <QVariant>

#include <ostr/CUsbD.h>

#include "usbd.h"
#include "usbdatain.h"
#include "usbdbuffer.h"
#include "usbdbufferlist.h"

namespace {

struct KeyType {
    QString key;
    int type; // QMetaType id the value must convert to
};

// Every key of the table must be present and convert to its type; other keys are ignored.
bool hasKeys(const QVariantMap &map, const QList<KeyType> &table)
{
    for (const KeyType &entry : table) {
        const auto it = map.constFind(entry.key);
        if (it == map.constEnd() || !it->canConvert(entry.type))
            return false;
    }
    return true;
}

const QList<KeyType> &fileKeys()
{
    static const QList<KeyType> keys{
        {CUsbD::tagPath(), QMetaType::QString},
        {CUsbD::tagOffset(), QMetaType::LongLong},
        {CUsbD::tagSize(), QMetaType::Int},
        {CUsbD::tagElementAlignment(), QMetaType::Int},
        {CUsbD::tagElementPadding(), QMetaType::Int},
        {CUsbD::tagSessionId(), QMetaType::UShort},
    };
    return keys;
}

const QList<KeyType> &shmKeys()
{
    static const QList<KeyType> keys{
        {CUsbD::tagHandle(), QMetaType::ULongLong},
        {CUsbD::tagSize(), QMetaType::LongLong},
        {CUsbD::tagElementAlignment(), QMetaType::Int},
        {CUsbD::tagElementPadding(), QMetaType::Int},
        {CUsbD::tagUsePhysicalAddress(), QMetaType::Bool},
        {CUsbD::tagSessionId(), QMetaType::UShort},
    };
    return keys;
}

UsbDBuffer *fileBuffer(const QVariantMap &map)
{
    return new UsbDBufferPath(map.value(CUsbD::tagPath()).toString(),
                              quint32(map.value(CUsbD::tagOffset()).toLongLong()),
                              quint32(map.value(CUsbD::tagSize()).toInt()),
                              quint32(map.value(CUsbD::tagElementAlignment()).toInt()),
                              quint32(map.value(CUsbD::tagElementPadding()).toInt()),
                              quint16(map.value(CUsbD::tagSessionId()).toUInt()), nullptr);
}

UsbDBuffer *shmBuffer(const QVariantMap &map)
{
    return new UsbDBufferArvoHandle(map.value(CUsbD::tagHandle()).toULongLong(), 0,
                                    quint32(map.value(CUsbD::tagSize()).toLongLong()),
                                    quint32(map.value(CUsbD::tagElementAlignment()).toInt()),
                                    quint32(map.value(CUsbD::tagElementPadding()).toInt()),
                                    map.value(CUsbD::tagUsePhysicalAddress()).toBool(),
                                    quint16(map.value(CUsbD::tagSessionId()).toUInt()), nullptr);
}

// Builds one request from the maps; a map that fails its checks fails the whole request at once
// and nothing of it is sent.
// Only keys and types are checked here: values (a negative padding, a path that names no
// regular file, a range past the end) are the buffers' and transports' to refuse when the
// request's turn comes.
template <typename MakeBuffer>
void queueMaps(UsbDataIn *queue, const QList<QVariantMap> &maps, const QList<KeyType> &keys,
               MakeBuffer makeBuffer, const QDBusMessage &msg)
{
    QList<UsbDBuffer *> buffers;
    bool valid = true;
    for (const QVariantMap &map : maps) {
        if (!hasKeys(map, keys)) {
            valid = false;
            break;
        }
        buffers.append(makeBuffer(map));
    }
    auto *request = new UsbDDBusBufferList(buffers, msg, nullptr);
    if (valid) {
        queue->send_data(request);
        return;
    }
    request->fail();
    delete request;
}

} // namespace

void UsbD::send_data(const QByteArray &usb_data, uchar usb_data_len, const QDBusMessage &msg)
{
    auto *request = new UsbDDBusBufferList(
        {new UsbDBufferMem(usb_data, 0, usb_data_len, 0, 0, 0, nullptr)}, msg, nullptr);
    // A length beyond the bytes sent would read past the array: refused with the error reply.
    if (usb_data_len > usb_data.size()) {
        request->fail();
        delete request;
        return;
    }
    dataIn_->send_data(request);
}

void UsbD::send_file(QList<QVariantMap> file_list, const QDBusMessage &msg)
{
    queueMaps(dataIn_, file_list, fileKeys(), fileBuffer, msg);
}

void UsbD::send_shm_data(QList<QVariantMap> shm_handle_list, const QDBusMessage &msg)
{
    queueMaps(dataIn_, shm_handle_list, shmKeys(), shmBuffer, msg);
}
