// Feeds the decoding of send_file and send_shm_data with lists of maps built from arbitrary
// bytes: any number of maps, the real keys and others, values of every type D-Bus can carry
// (and some it cannot), and checks what the daemon relies on: a request decodes whole or fails
// whole, a map is decoded only while all before it passed, every piece carries the values its
// map names converted as documented, and the map a client writes for a piece decodes to that
// same piece.
#include <usbd/dbusmaps.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include <QDBusVariant>
#include <QStringList>

#include <ostr/CUsbD.h>

#include <fuzzer/FuzzedDataProvider.h>

namespace {

void check(bool condition)
{
    if (!condition)
        std::abort();
}

QString someString(FuzzedDataProvider &in)
{
    const std::string bytes = in.ConsumeRandomLengthString(64);
    return QString::fromUtf8(bytes.data(), int(bytes.size()));
}

QVariant someValue(FuzzedDataProvider &in, int depth = 0)
{
    switch (in.ConsumeIntegralInRange(0, 15)) {
    case 0:
        return someString(in);
    case 1: // a number written as text converts too, to its value or to 0
        return QString::number(in.ConsumeIntegral<qint64>());
    case 2:
        return in.ConsumeIntegral<int>();
    case 3:
        return in.ConsumeIntegral<uint>();
    case 4:
        return qlonglong(in.ConsumeIntegral<qint64>());
    case 5:
        return qulonglong(in.ConsumeIntegral<quint64>());
    case 6:
        return in.ConsumeBool();
    case 7:
        return in.ConsumeFloatingPoint<double>();
    case 8:
        return QVariant::fromValue<ushort>(in.ConsumeIntegral<ushort>());
    case 9:
        return QVariant::fromValue<uchar>(in.ConsumeIntegral<uchar>());
    case 10:
        return QVariant::fromValue<short>(in.ConsumeIntegral<short>());
    case 11:
        return QByteArray::fromStdString(in.ConsumeRandomLengthString(64));
    case 12:
        return QStringList{someString(in), someString(in)};
    case 13:
        if (depth < 2)
            return QVariant::fromValue(QDBusVariant(someValue(in, depth + 1)));
        return QVariant();
    case 14:
        if (depth < 2)
            return QVariantList{someValue(in, depth + 1), someValue(in, depth + 1)};
        return QVariant();
    default:
        return QVariant(); // no value at all
    }
}

const QStringList &allKeys()
{
    static const QStringList keys{CUsbD::tagPath(),           CUsbD::tagOffset(),
                                  CUsbD::tagSize(),           CUsbD::tagElementAlignment(),
                                  CUsbD::tagElementPadding(), CUsbD::tagSessionId(),
                                  CUsbD::tagHandle(),         CUsbD::tagUsePhysicalAddress()};
    return keys;
}

// The types of each key, as documented for each kind of map.
const QList<QPair<QString, int>> kFileTypes{
    {CUsbD::tagPath(), QMetaType::QString},       {CUsbD::tagOffset(), QMetaType::LongLong},
    {CUsbD::tagSize(), QMetaType::Int},           {CUsbD::tagElementAlignment(), QMetaType::Int},
    {CUsbD::tagElementPadding(), QMetaType::Int}, {CUsbD::tagSessionId(), QMetaType::UShort}};
const QList<QPair<QString, int>> kShmTypes{
    {CUsbD::tagHandle(), QMetaType::ULongLong},        {CUsbD::tagSize(), QMetaType::LongLong},
    {CUsbD::tagElementAlignment(), QMetaType::Int},    {CUsbD::tagElementPadding(), QMetaType::Int},
    {CUsbD::tagUsePhysicalAddress(), QMetaType::Bool}, {CUsbD::tagSessionId(), QMetaType::UShort}};

QVariantMap someMap(FuzzedDataProvider &in, const QList<QPair<QString, int>> &types)
{
    QVariantMap map;
    // Half the maps start with every key of their kind, so that whole requests pass the checks
    // often; any map may then gain, lose the type of, or lack keys like any other.
    if (in.ConsumeBool()) {
        for (const auto &type : types)
            map.insert(type.first, someValue(in));
    }
    const int count = in.ConsumeIntegralInRange(0, 10);
    for (int i = 0; i < count; ++i) {
        const int pick = in.ConsumeIntegralInRange(0, int(allKeys().size()));
        const QString key = pick < allKeys().size() ? allKeys().at(pick) : someString(in);
        map.insert(key, someValue(in));
    }
    return map;
}

// The documented rule, written out again independently of the decoder.
bool mapPasses(const QVariantMap &map, const QList<QPair<QString, int>> &types)
{
    for (const auto &type : types) {
        if (!map.contains(type.first) || !map.value(type.first).canConvert(type.second))
            return false;
    }
    return true;
}

void check(const usbd::dbusmaps::FilePiece &piece, const QVariantMap &map)
{
    check(piece.path == map.value(CUsbD::tagPath()).toString());
    check(piece.offset == quint32(map.value(CUsbD::tagOffset()).toLongLong()));
    check(piece.size == quint32(map.value(CUsbD::tagSize()).toInt()));
    check(piece.elementAlignment == quint32(map.value(CUsbD::tagElementAlignment()).toInt()));
    check(piece.elementPadding == quint32(map.value(CUsbD::tagElementPadding()).toInt()));
    check(piece.sessionId == quint16(map.value(CUsbD::tagSessionId()).toUInt()));
}

void check(const usbd::dbusmaps::ShmPiece &piece, const QVariantMap &map)
{
    check(piece.handle == map.value(CUsbD::tagHandle()).toULongLong());
    check(piece.size == quint32(map.value(CUsbD::tagSize()).toLongLong()));
    check(piece.elementAlignment == quint32(map.value(CUsbD::tagElementAlignment()).toInt()));
    check(piece.elementPadding == quint32(map.value(CUsbD::tagElementPadding()).toInt()));
    check(piece.usePhysicalAddress == map.value(CUsbD::tagUsePhysicalAddress()).toBool());
    check(piece.sessionId == quint16(map.value(CUsbD::tagSessionId()).toUInt()));
}

bool same(const usbd::dbusmaps::FilePiece &a, const usbd::dbusmaps::FilePiece &b)
{
    return a.path == b.path && a.offset == b.offset && a.size == b.size
           && a.elementAlignment == b.elementAlignment && a.elementPadding == b.elementPadding
           && a.sessionId == b.sessionId;
}

bool same(const usbd::dbusmaps::ShmPiece &a, const usbd::dbusmaps::ShmPiece &b)
{
    return a.handle == b.handle && a.size == b.size && a.elementAlignment == b.elementAlignment
           && a.elementPadding == b.elementPadding && a.usePhysicalAddress == b.usePhysicalAddress
           && a.sessionId == b.sessionId;
}

// Decodes the maps and checks the result against the rule and the conversions written out
// above, then checks that each piece survives the way through a client's map.
template <typename Piece, typename Decode, typename Encode>
void checkDecoding(const QList<QVariantMap> &maps, const QList<QPair<QString, int>> &types,
                   Decode decode, Encode encode)
{
    QList<Piece> pieces;
    const bool decoded = decode(maps, &pieces);

    // Every map up to the first that fails is decoded, and none after it.
    int passing = 0;
    while (passing < maps.size() && mapPasses(maps.at(passing), types))
        ++passing;
    check(pieces.size() == passing);
    check(decoded == (passing == maps.size()));

    for (int i = 0; i < pieces.size(); ++i) {
        check(pieces.at(i), maps.at(i));
        // A client's map carries each key with exactly the documented type, which is the
        // type D-Bus sends it as.
        const QVariantMap written = encode(pieces.at(i));
        check(written.size() == types.size());
        for (const auto &type : types)
            check(written.value(type.first).userType() == type.second);
        QList<Piece> again;
        check(decode({written}, &again) && again.size() == 1 && same(again.at(0), pieces.at(i)));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    FuzzedDataProvider in(data, size);
    const bool files = in.ConsumeBool();
    QList<QVariantMap> maps;
    const int count = in.ConsumeIntegralInRange(0, 8);
    for (int i = 0; i < count; ++i)
        maps.append(someMap(in, files ? kFileTypes : kShmTypes));

    if (files)
        checkDecoding<usbd::dbusmaps::FilePiece>(maps, kFileTypes, usbd::dbusmaps::decodeFileMaps,
                                                 usbd::dbusmaps::fileMap);
    else
        checkDecoding<usbd::dbusmaps::ShmPiece>(maps, kShmTypes, usbd::dbusmaps::decodeShmMaps,
                                                usbd::dbusmaps::shmMap);
    return 0;
}
