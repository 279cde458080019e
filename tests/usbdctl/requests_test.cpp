// What usbdctl asks of the daemon: the maps it builds and the exit status of each failure.
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include "requests.h"

using namespace usbdctl;

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
    EXPECT_EQ(pieces[0].size, 96);
    EXPECT_EQ(pieces[1].size, 6);
    EXPECT_EQ(pieces[1].sessionId, 65535);

    // A range that ends exactly at the end of the file is whole.
    options.size = 6;
    ASSERT_TRUE(planFilePieces({"ten.bin"}, options, &pieces, &error));
    EXPECT_EQ(pieces[0].size, 6);
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

TEST(SendMaps, ValuesKeepTheirFullRange)
{
    // The daemon refuses any other D-Bus type, which the system test would show; what it
    // cannot show is a value above 2^31 turning negative on the way.
    FilePiece piece;
    piece.path = "/data/a.bin";
    piece.offset = 0xFFFFFFF0u;
    piece.size = 16;
    piece.sessionId = 0xFFFF;
    const QVariantMap file = fileMap(piece);
    EXPECT_EQ(file.value("offset").toLongLong(), 0xFFFFFFF0ll);
    EXPECT_EQ(file.value("session_id").toUInt(), 0xFFFFu);

    ShmPiece shm;
    shm.handle = 0xFFFFFFFF00001000ull;
    shm.size = 0x80000000u;
    const QVariantMap memory = shmMap(shm);
    EXPECT_EQ(memory.value("handle").toULongLong(), 0xFFFFFFFF00001000ull);
    EXPECT_EQ(memory.value("size").toLongLong(), 0x80000000ll);
}

TEST(ExitCodes, OnlyTheDaemonsOwnFailureReadsAsATransferProblem)
{
    // The statuses themselves are checked against the real daemon and bus by the system tests.
    // "Failed" with another text comes from the bus or the library (for example a message that
    // could not be built), not from a transfer: it must not read as a link problem.
    const QString prefix = "org.freedesktop.DBus.Error.";
    EXPECT_EQ(exitCodeForDBusError(prefix + "Failed", kTransferFailedText), kExitTransferFailed);
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

} // namespace
