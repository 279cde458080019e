#include <usbd/dbusmaps.h>

#include <ostr/CUsbD.h>

namespace usbd::dbusmaps {
namespace {

// A map holding every key of the table, each value converted to the key's type. The values
// come in the pieces' own types; converting them here, from the table, is what keeps a client's
// D-Bus types and the daemon's checks from drifting apart.
QVariantMap typed(const QList<KeyType> &keys, QVariantMap values)
{
    for (const KeyType &entry : keys)
        values[entry.key].convert(entry.type);
    return values;
}

// Decodes maps until one fails its checks; see decodeFileMaps.
template <typename Piece, typename Decode>
bool decodeMaps(const QList<QVariantMap> &maps, const QList<KeyType> &keys, Decode decode,
                QList<Piece> *pieces)
{
    pieces->clear();
    for (const QVariantMap &map : maps) {
        if (!hasKeys(map, keys))
            return false;
        pieces->append(decode(map));
    }
    return true;
}

} // namespace

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

bool hasKeys(const QVariantMap &map, const QList<KeyType> &keys)
{
    for (const KeyType &entry : keys) {
        const auto it = map.constFind(entry.key);
        if (it == map.constEnd() || !it->canConvert(entry.type))
            return false;
    }
    return true;
}

bool decodeFileMaps(const QList<QVariantMap> &maps, QList<FilePiece> *pieces)
{
    return decodeMaps(
        maps, fileKeys(),
        [](const QVariantMap &map) {
            FilePiece piece;
            piece.path = map.value(CUsbD::tagPath()).toString();
            piece.offset = quint32(map.value(CUsbD::tagOffset()).toLongLong());
            piece.size = quint32(map.value(CUsbD::tagSize()).toInt());
            piece.elementAlignment = quint32(map.value(CUsbD::tagElementAlignment()).toInt());
            piece.elementPadding = quint32(map.value(CUsbD::tagElementPadding()).toInt());
            piece.sessionId = quint16(map.value(CUsbD::tagSessionId()).toUInt());
            return piece;
        },
        pieces);
}

bool decodeShmMaps(const QList<QVariantMap> &maps, QList<ShmPiece> *pieces)
{
    return decodeMaps(
        maps, shmKeys(),
        [](const QVariantMap &map) {
            ShmPiece piece;
            piece.handle = map.value(CUsbD::tagHandle()).toULongLong();
            piece.size = quint32(map.value(CUsbD::tagSize()).toLongLong());
            piece.elementAlignment = quint32(map.value(CUsbD::tagElementAlignment()).toInt());
            piece.elementPadding = quint32(map.value(CUsbD::tagElementPadding()).toInt());
            piece.usePhysicalAddress = map.value(CUsbD::tagUsePhysicalAddress()).toBool();
            piece.sessionId = quint16(map.value(CUsbD::tagSessionId()).toUInt());
            return piece;
        },
        pieces);
}

QVariantMap fileMap(const FilePiece &piece)
{
    return typed(fileKeys(), {{CUsbD::tagPath(), piece.path},
                              {CUsbD::tagOffset(), piece.offset},
                              {CUsbD::tagSize(), piece.size},
                              {CUsbD::tagElementAlignment(), piece.elementAlignment},
                              {CUsbD::tagElementPadding(), piece.elementPadding},
                              {CUsbD::tagSessionId(), piece.sessionId}});
}

QVariantMap shmMap(const ShmPiece &piece)
{
    return typed(shmKeys(), {{CUsbD::tagHandle(), piece.handle},
                             {CUsbD::tagSize(), piece.size},
                             {CUsbD::tagElementAlignment(), piece.elementAlignment},
                             {CUsbD::tagElementPadding(), piece.elementPadding},
                             {CUsbD::tagUsePhysicalAddress(), piece.usePhysicalAddress},
                             {CUsbD::tagSessionId(), piece.sessionId}});
}

} // namespace usbd::dbusmaps
