// Turning the D-Bus send calls into transfer requests.

#include <sys/stat.h>

#include <QVariant>

#include <ostr/CUsbD.h>

#include "logging.h"
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

// Padding is carried as a signed 32-bit D-Bus integer but means an unsigned byte count: a
// negative one would ask for gigabytes of zeros that no client meant, so it is refused here.
// (A negative size needs no such check: its range can never lie within a file or an
// allocation, so the transfer refuses it before sending anything.)
bool hasNegative(const QVariantMap &map, const QStringList &keys)
{
    for (const QString &key : keys) {
        const int value = map.value(key).toInt();
        if (value < 0) {
            qCWarning(lcUsbd).noquote() << "negative" << key << value << "refused";
            return true;
        }
    }
    return false;
}

// Only regular files can be sent: a FIFO or a device node would block the reader on open or
// read, or never end. Refused here, before anything is queued, when the path exists and is not
// a regular file; a path that does not exist (yet) fails when the transfer maps it. stat() does
// not open, so it cannot block.
bool validFileMap(const QVariantMap &map)
{
    if (hasNegative(map, {CUsbD::tagElementPadding()}))
        return false;
    const QByteArray path = map.value(CUsbD::tagPath()).toString().toUtf8();
    struct stat st;
    if (::stat(path.constData(), &st) == 0 && !S_ISREG(st.st_mode)) {
        qCWarning(lcUsbd).noquote() << "not a regular file:" << QString::fromUtf8(path);
        return false;
    }
    return true;
}

bool validShmMap(const QVariantMap &map)
{
    return !hasNegative(map, {CUsbD::tagElementPadding()});
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
template <typename MakeBuffer, typename Validate>
void queueMaps(UsbDataIn *queue, const QList<QVariantMap> &maps, const QList<KeyType> &keys,
               Validate validate, MakeBuffer makeBuffer, const QDBusMessage &msg)
{
    QList<UsbDBuffer *> buffers;
    bool valid = true;
    for (const QVariantMap &map : maps) {
        if (!hasKeys(map, keys) || !validate(map)) {
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
    queueMaps(dataIn_, file_list, fileKeys(), validFileMap, fileBuffer, msg);
}

void UsbD::send_shm_data(QList<QVariantMap> shm_handle_list, const QDBusMessage &msg)
{
    queueMaps(dataIn_, shm_handle_list, shmKeys(), validShmMap, shmBuffer, msg);
}
