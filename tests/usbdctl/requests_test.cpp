// What usbdctl asks of the daemon: the pieces and maps it builds, the numbers it reads, the
// names it calls the daemon by, and the exit status of each failure.
#include <gtest/gtest.h>

#include <limits>

#include <QDir>
#include <QFile>
#include <QMetaProperty>
#include <QTemporaryDir>

#include <usbd/dbusmaps.h>
#include <usbd/protocol.h>

#include "arguments.h"
#include "progress.h"
#include "requests.h"
#include "usbdproxy.h"

using namespace usbdctl;
using usbd::dbusmaps::FilePiece;

namespace {

class FilePlan : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dir_.isValid());
        write("ten.bin", 10);
        write("hundred.bin", 100);
        previous_ = QDir::currentPath();
        QDir::setCurrent(dir_.path());
    }
    void TearDown() override { QDir::setCurrent(previous_); }

    void write(const QString &name, int size)
    {
        QFile file(dir_.filePath(name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(QByteArray(size, 'x'));
    }

    QTemporaryDir dir_;
    QString previous_;
};

TEST_F(FilePlan, WithoutASizeEachFileIsSentFromTheOffsetToItsOwnEnd)
{
    // The system test sends whole files and fixed ranges; this is the case in between.
    QList<FilePiece> pieces;
    PlanError error;
    FileOptions options;
    options.offset = 4;
    options.sessionId = 65535;
    ASSERT_TRUE(planFilePieces({"hundred.bin", "ten.bin"}, options, &pieces, &error));
    ASSERT_EQ(pieces.size(), 2);
    EXPECT_EQ(pieces[0].offset, 4u);
    EXPECT_EQ(pieces[0].size, 96u);
    EXPECT_EQ(pieces[1].size, 6u);
    EXPECT_EQ(pieces[1].sessionId, 65535);

    // A range that ends exactly at the end of the file is whole.
    options.size = 6;
    ASSERT_TRUE(planFilePieces({"ten.bin"}, options, &pieces, &error));
    EXPECT_EQ(pieces[0].size, 6u);
}

TEST_F(FilePlan, MissingFilesAndRangesOutsideAFileAreRefusedBeforeSending)
{
    QList<FilePiece> pieces;
    PlanError error;
    FileOptions options;

    EXPECT_FALSE(planFilePieces({"ten.bin", "missing.bin"}, options, &pieces, &error));
    EXPECT_EQ(error.exitCode, kExitLocalFile);
    EXPECT_TRUE(error.message.contains("missing.bin"));
    EXPECT_TRUE(pieces.isEmpty());

    EXPECT_FALSE(planFilePieces({dir_.path()}, options, &pieces, &error));
    EXPECT_EQ(error.exitCode, kExitLocalFile);

    // The same size fits the larger file and not the smaller: each file is checked.
    options.size = 50;
    EXPECT_FALSE(planFilePieces({"hundred.bin", "ten.bin"}, options, &pieces, &error));
    EXPECT_EQ(error.exitCode, kExitUsage);
    EXPECT_TRUE(error.message.contains("ten.bin"));

    options.size.reset();
    options.offset = 11;
    EXPECT_FALSE(planFilePieces({"ten.bin"}, options, &pieces, &error));
    EXPECT_EQ(error.exitCode, kExitUsage);

    // The daemon keeps only the low 32 bits of an offset: 2^32 + 4 would quietly send from 4.
    options.offset = (quint64(1) << 32) + 4;
    EXPECT_FALSE(planFilePieces({"hundred.bin"}, options, &pieces, &error));
    EXPECT_EQ(error.exitCode, kExitUsage);
}

TEST_F(FilePlan, TheDaemonReadsBackWhatWasPlannedWithEveryTypeItChecks)
{
    // A value above 2^31 must not turn negative on the way, and each key must carry the type
    // the daemon checks, or the whole request fails there.
    QList<FilePiece> pieces;
    PlanError error;
    FileOptions options;
    options.offset = 4;
    options.elementPadding = std::numeric_limits<qint32>::max();
    options.sessionId = 0xFFFF;
    ASSERT_TRUE(planFilePieces({"hundred.bin"}, options, &pieces, &error));
    // An offset as a large file has it (the plan itself checks it against the file's size).
    pieces[0].offset = 0xFFFFFFF0u;

    QList<QVariantMap> maps;
    for (const FilePiece &piece : pieces)
        maps.append(usbd::dbusmaps::fileMap(piece));
    for (const usbd::dbusmaps::KeyType &key : usbd::dbusmaps::fileKeys())
        EXPECT_EQ(maps[0].value(key.key).userType(), key.type) << key.key.toStdString();
    QList<FilePiece> decoded;
    ASSERT_TRUE(usbd::dbusmaps::decodeFileMaps(maps, &decoded));
    ASSERT_EQ(decoded.size(), 1);
    EXPECT_EQ(decoded[0].path, QDir(dir_.path()).filePath("hundred.bin"));
    EXPECT_EQ(decoded[0].offset, 0xFFFFFFF0u);
    EXPECT_EQ(decoded[0].size, 96u);
    EXPECT_EQ(decoded[0].elementPadding, quint32(std::numeric_limits<qint32>::max()));
    EXPECT_EQ(decoded[0].sessionId, 0xFFFF);

    usbd::dbusmaps::ShmPiece shm;
    shm.handle = 0xFFFFFFFF00001000ull;
    shm.size = 0x80000000u;
    shm.usePhysicalAddress = true;
    QList<usbd::dbusmaps::ShmPiece> shmDecoded;
    ASSERT_TRUE(usbd::dbusmaps::decodeShmMaps({usbd::dbusmaps::shmMap(shm)}, &shmDecoded));
    EXPECT_EQ(shmDecoded[0].handle, shm.handle);
    EXPECT_EQ(shmDecoded[0].size, shm.size);
    EXPECT_TRUE(shmDecoded[0].usePhysicalAddress);

    // One map without a key fails the request; the pieces before it are all that was read.
    maps.append(maps[0]);
    maps[1].remove(QStringLiteral("session_id"));
    maps.append(maps[0]);
    EXPECT_FALSE(usbd::dbusmaps::decodeFileMaps(maps, &decoded));
    EXPECT_EQ(decoded.size(), 1);
}

TEST(DaemonInterface, UsbdctlCallsTheDaemonByTheNamesItOffers)
{
    // The proxy is generated from the interface file that the daemon's introspection is
    // checked against; the properties usbdctl shows and the names it calls must be in it.
    EXPECT_STREQ(UsbdProxy::staticInterfaceName(), usbd::kDBusInterface);
    const QMetaObject &proxy = UsbdProxy::staticMetaObject;
    for (const char *name : kPropertyOrder)
        EXPECT_GE(proxy.indexOfProperty(name), 0) << name;
    EXPECT_EQ(proxy.property(proxy.indexOfProperty("link_type")).userType(), QMetaType::Int);
}

TEST(ExitCodes, OnlyTheDaemonsOwnFailureReadsAsATransferProblem)
{
    // The statuses themselves are checked against the real daemon and bus by the system tests.
    // "Failed" with another text comes from the bus or the library (for example a message that
    // could not be built), not from a transfer: it must not read as a link problem.
    const QString prefix = "org.freedesktop.DBus.Error.";
    EXPECT_EQ(exitCodeForDBusError(prefix + "Failed", usbd::kFailedToSendText),
              kExitTransferFailed);
    EXPECT_EQ(exitCodeForDBusError(prefix + "Failed", "Marshalling failed"), kExitOtherError);
    EXPECT_EQ(exitCodeForDBusError("com.example.AccessDenied", "x"), kExitOtherError);
}

TEST(SocketEntries, HandleEntrysAndHexBytesRefuseWhatWouldBeTruncated)
{
    const auto entry = parseHandleEntry("0xFFFF00000000abcd:16:4096");
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->handle, 0xFFFF00000000abcdull);
    EXPECT_EQ(entry->offset, 16u);
    EXPECT_EQ(entry->size, 4096u);
    // Offsets and sizes are 32-bit fields of the request.
    EXPECT_FALSE(parseHandleEntry("1:4294967296:1"));
    EXPECT_FALSE(parseHandleEntry("1:0:4294967296"));
    EXPECT_FALSE(parseHandleEntry("1:0"));
    EXPECT_FALSE(parseHandleEntry("1:0:2:3"));
    EXPECT_FALSE(parseHandleEntry("-1:0:2"));

    EXPECT_EQ(parseHex("de ad:BE ef"), QByteArray::fromHex("deadbeef"));
    EXPECT_EQ(parseHex(""), QByteArray());
    EXPECT_FALSE(parseHex("abc"));
    EXPECT_FALSE(parseHex("zz"));
}

TEST(Numbers, DecimalAndHexNumbersAreReadWholeOrNotAtAll)
{
    EXPECT_EQ(parseUnsigned("010", 100), 10u); // people type sizes here, not octal
    EXPECT_EQ(parseUnsigned(" 0x1F ", 100), 31u);
    EXPECT_EQ(parseUnsigned("18446744073709551615", std::numeric_limits<quint64>::max()),
              std::numeric_limits<quint64>::max());
    for (const char *bad : {"", "0x", "-1", "+1", "1k", "0x0x1", "101", "18446744073709551616"})
        EXPECT_FALSE(parseUnsigned(bad, 100)) << bad;
}

TEST(Progress, SizesChangeUnitAtEach1024AndTheSummaryGivesTheRate)
{
    EXPECT_EQ(formatBytes(1023), "1023 B");
    EXPECT_EQ(formatBytes(1024), "1.00 KiB");
    EXPECT_EQ(formatBytes(10 * 1024), "10.0 KiB");
    EXPECT_EQ(formatBytes(quint64(1) << 50), "1024.0 TiB");
    EXPECT_EQ(progressLine("receiving", 512, 1 << 20, 2.34), "receiving 512 B of 1.00 MiB, 2.3 s");
    EXPECT_EQ(summaryLine("sent", 2 << 20, 2.0), "sent 2.00 MiB in 2.000 s (1.00 MiB/s)");
    EXPECT_EQ(summaryLine("sent", 0, 0.0), "sent 0 B in 0.000 s");
}

} // namespace
