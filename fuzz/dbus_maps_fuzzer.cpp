// Feeds the decoding of send_file and send_shm_data with lists of maps built from arbitrary
// bytes: any number of maps, the real keys and others, values of every type D-Bus can carry
// (and some it cannot), and checks what the daemon relies on: a request is either queued whole
// or failed whole, a map is looked at only while all before it passed, every buffer carries the
// values its map names converted as documented, and nothing is leaked either way
// (AddressSanitizer's leak check runs after every input).
//
// The decoding is file-local to the daemon's request module, so that module is compiled into
// this file; nothing here replaces any of it.
#include "usbdrequests.cpp"

#include <cstdint>
#include <cstdlib>
#include <string>

#include <QCoreApplication>
#include <QDBusVariant>
#include <QStringList>

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
    static const QStringList keys{CUsbD::tagPath(),          CUsbD::tagOffset(),
                                  CUsbD::tagSize(),          CUsbD::tagElementAlignment(),
                                  CUsbD::tagElementPadding(), CUsbD::tagSessionId(),
                                  CUsbD::tagHandle(),        CUsbD::tagUsePhysicalAddress()};
    return keys;
}

// The types of each key, as documented for each kind of map.
const QList<QPair<QString, int>> kFileTypes{
    {CUsbD::tagPath(), QMetaType::QString},         {CUsbD::tagOffset(), QMetaType::LongLong},
    {CUsbD::tagSize(), QMetaType::Int},             {CUsbD::tagElementAlignment(), QMetaType::Int},
    {CUsbD::tagElementPadding(), QMetaType::Int},   {CUsbD::tagSessionId(), QMetaType::UShort}};
const QList<QPair<QString, int>> kShmTypes{
    {CUsbD::tagHandle(), QMetaType::ULongLong},     {CUsbD::tagSize(), QMetaType::LongLong},
    {CUsbD::tagElementAlignment(), QMetaType::Int}, {CUsbD::tagElementPadding(), QMetaType::Int},
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

void checkCommon(UsbDBuffer *buffer, const QVariantMap &map)
{
    check(buffer->elementAlignment() == quint32(map.value(CUsbD::tagElementAlignment()).toInt()));
    check(buffer->elementPadding() == quint32(map.value(CUsbD::tagElementPadding()).toInt()));
    check(buffer->sessionId() == quint16(map.value(CUsbD::tagSessionId()).toUInt()));
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    // Buffers are QObjects and log through Qt; both want an application object.
    static QCoreApplication app(*argc, *argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    FuzzedDataProvider in(data, size);
    const bool files = in.ConsumeBool();
    QList<QVariantMap> maps;
    const int count = in.ConsumeIntegralInRange(0, 8);
    for (int i = 0; i < count; ++i)
        maps.append(someMap(in, files ? kFileTypes : kShmTypes));

    // The maps the decoder turns into buffers, in the order it does, checked as it goes.
    int built = 0;
    auto fileChecked = [&](const QVariantMap &map) {
        check(built < maps.size() && map == maps.at(built));
        check(mapPasses(map, kFileTypes));
        ++built;
        UsbDBuffer *buffer = fileBuffer(map);
        auto *path = qobject_cast<UsbDBufferPath *>(buffer);
        check(path != nullptr);
        check(path->path() == map.value(CUsbD::tagPath()).toString());
        check(buffer->offset() == quint32(map.value(CUsbD::tagOffset()).toLongLong()));
        check(buffer->size() == quint32(map.value(CUsbD::tagSize()).toInt()));
        checkCommon(buffer, map);
        return buffer;
    };
    auto shmChecked = [&](const QVariantMap &map) {
        check(built < maps.size() && map == maps.at(built));
        check(mapPasses(map, kShmTypes));
        ++built;
        UsbDBuffer *buffer = shmBuffer(map);
        auto *shm = qobject_cast<UsbDBufferArvoHandle *>(buffer);
        check(shm != nullptr);
        check(shm->handle() == map.value(CUsbD::tagHandle()).toULongLong());
        check(shm->usePhysicalAddress() == map.value(CUsbD::tagUsePhysicalAddress()).toBool());
        check(buffer->offset() == 0);
        check(buffer->size() == quint32(map.value(CUsbD::tagSize()).toLongLong()));
        checkCommon(buffer, map);
        return buffer;
    };

    {
        // No transports: a queued request stays in the queue, which deletes it with itself.
        UsbDataIn queue({});
        const QDBusMessage call = QDBusMessage::createMethodCall(
            QStringLiteral("com.korvane.usbd"), QStringLiteral("/com/korvane/usbd"),
            QStringLiteral("com.korvane.usbd"), files ? "send_file" : "send_shm_data");
        if (files)
            queueMaps(&queue, maps, fileKeys(), validFileMap, fileChecked, call);
        else
            queueMaps(&queue, maps, shmKeys(), validShmMap, shmChecked, call);
    }

    // Every map up to the first that fails is built, and none after it.
    int passing = 0;
    // The daemon's own value checks (no negative padding, only regular files) come after the
    // key and type checks, as in the decoder.
    auto passes = [&](const QVariantMap &map) {
        return mapPasses(map, files ? kFileTypes : kShmTypes) &&
               (files ? validFileMap(map) : validShmMap(map));
    };
    while (passing < maps.size() && passes(maps.at(passing)))
        ++passing;
    check(built == passing);
    return 0;
}
