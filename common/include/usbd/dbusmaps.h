#pragma once

#include <QList>
#include <QString>
#include <QVariantMap>

// The maps of the D-Bus send methods (send_file and send_shm_data take aa{sv}, one map per
// piece): which keys a map must carry with which type, how the daemon reads a list of them and
// how a client writes one. The keys themselves come from the platform's CUsbD. Pure: no I/O,
// no logging and no bus, so that the daemon, usbdctl, the benchmarks and the fuzzer all run the
// same code.
namespace usbd::dbusmaps {

struct KeyType {
    QString key;
    int type; // the QMetaType the value must convert to, and the D-Bus type a client sends
};

// path s, offset x, size i, element_alignment i, element_padding i, session_id q.
const QList<KeyType> &fileKeys();
// handle t, size x, element_alignment i, element_padding i, use_physical_address b,
// session_id q.
const QList<KeyType> &shmKeys();

// Every key of the table is present and its value converts to the key's type; other keys are
// ignored. Only keys and types: values are not looked at.
bool hasKeys(const QVariantMap &map, const QList<KeyType> &keys);

// One send_file piece as the daemon takes it from its map.
struct FilePiece {
    QString path;
    quint32 offset = 0;           // the low 32 bits of the value
    quint32 size = 0;             // the 32 bits of the signed value
    quint32 elementAlignment = 0; // likewise
    quint32 elementPadding = 0;   // likewise: zero bytes sent after the data
    quint16 sessionId = 0;        // the low 16 bits of the value
};

// One send_shm_data piece; it always starts at offset 0 of the shared buffer.
struct ShmPiece {
    quint64 handle = 0;
    quint32 size = 0; // the low 32 bits of the value
    quint32 elementAlignment = 0;
    quint32 elementPadding = 0;
    bool usePhysicalAddress = false;
    quint16 sessionId = 0;
};

// Decode the maps of one request in order into *pieces (cleared first). At the first map that
// fails hasKeys they stop and return false, with *pieces holding the pieces of the maps before
// it: one such map fails the whole request.
bool decodeFileMaps(const QList<QVariantMap> &maps, QList<FilePiece> *pieces);
bool decodeShmMaps(const QList<QVariantMap> &maps, QList<ShmPiece> *pieces);

// The map a client sends for a piece: every key of the table, each value of the table's type
// (which is also the type D-Bus carries it as). Decoding it gives the piece back.
QVariantMap fileMap(const FilePiece &piece);
QVariantMap shmMap(const ShmPiece &piece);

} // namespace usbd::dbusmaps
