// What usbdctl asks of the daemon: the maps it builds and the exit status of each failure.
#include <gtest/gtest.h>

#include <QDBusMetaType>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include "requests.h"

using namespace usbdctl;

namespace {

// The D-Bus type each value of a map travels as.
QMap<QString, QString> wireTypes(const QVariantMap &map)
{
    QMap<QString, QString> types;
    for (auto it = map.begin(); it != map.end(); ++it)
        types.insert(it.key(), QString::fromLatin1(QDBusMetaType::typeToSignature(it.value().userType())));
    return types;
}

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

TEST_F(FilePlan, PiecesNameAbsolutePathsAndCoverTheRestOfEachFile)
{
    QList<FilePiece> pieces;
    PlanError error;
    FileOptions options;
    options.elementPadding = 7;
    options.sessionId = 65535;
    // Relative names: the daemon has a working directory of its own and must get full paths.
    ASSERT_TRUE(planFilePieces({"hundred.bin", "ten.bin", "hundred.bin"}, options, &pieces, &error));
    ASSERT_EQ(pieces.size(), 3);
    EXPECT_EQ(pieces[0].path, dir_.filePath("hundred.bin"));
    EXPECT_EQ(pieces[1].path, dir_.filePath("ten.bin"));
    EXPECT_EQ(pieces[0].size, 100);
    EXPECT_EQ(pieces[1].size, 10);
    EXPECT_EQ(pieces[2].size, 100);
    EXPECT_EQ(pieces[1].elementPadding, 7);
    EXPECT_EQ(pieces[1].sessionId, 65535);

    // Without --size, each file is sent from the offset to its own end.
    options.offset = 4;
    ASSERT_TRUE(planFilePieces({"hundred.bin", "ten.bin"}, options, &pieces, &error));
    EXPECT_EQ(pieces[0].offset, 4u);
    EXPECT_EQ(pieces[0].size, 96);
    EXPECT_EQ(pieces[1].size, 6);

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

TEST(SendMaps, ValuesTravelAsTheTypesTheDaemonChecksAndKeepTheirFullRange)
{
    FilePiece piece;
    piece.path = "/data/a.bin";
    piece.offset = 0xFFFFFFF0u; // above 2^31: must not turn negative on the way
    piece.size = 16;
    piece.elementAlignment = 4;
    piece.elementPadding = 3;
    piece.sessionId = 0xFFFF;
    const QVariantMap file = fileMap(piece);
    const QMap<QString, QString> fileTypes{{"path", "s"},
                                           {"offset", "x"},
                                           {"size", "i"},
                                           {"element_alignment", "i"},
                                           {"element_padding", "i"},
                                           {"session_id", "q"}};
    EXPECT_EQ(wireTypes(file), fileTypes);
    EXPECT_EQ(file.value("offset").toLongLong(), 0xFFFFFFF0ll);
    EXPECT_EQ(file.value("session_id").toUInt(), 0xFFFFu);
    EXPECT_EQ(file.value("element_padding").toInt(), 3);

    ShmPiece shm;
    shm.handle = 0xFFFFFFFF00001000ull;
    shm.size = 0x80000000u;
    shm.usePhysicalAddress = false;
    shm.sessionId = 9;
    const QVariantMap memory = shmMap(shm);
    const QMap<QString, QString> shmTypes{{"handle", "t"},
                                          {"size", "x"},
                                          {"element_alignment", "i"},
                                          {"element_padding", "i"},
                                          {"use_physical_address", "b"},
                                          {"session_id", "q"}};
    EXPECT_EQ(wireTypes(memory), shmTypes);
    EXPECT_EQ(memory.value("handle").toULongLong(), 0xFFFFFFFF00001000ull);
    EXPECT_EQ(memory.value("size").toLongLong(), 0x80000000ll);
    EXPECT_FALSE(memory.value("use_physical_address").toBool());
}

TEST(ExitCodes, EachCommonFailureHasItsOwnStatus)
{
    const QString prefix = "org.freedesktop.DBus.Error.";
    EXPECT_EQ(exitCodeForDBusError(prefix + "ServiceUnknown", "x"), kExitNotRunning);
    EXPECT_EQ(exitCodeForDBusError(prefix + "NameHasNoOwner", "x"), kExitNotRunning);
    EXPECT_EQ(exitCodeForDBusError(prefix + "AccessDenied", "x"), kExitAccessDenied);
    EXPECT_EQ(exitCodeForDBusError(prefix + "Failed", kTransferFailedText), kExitTransferFailed);
    EXPECT_EQ(exitCodeForDBusError(prefix + "NoReply", "x"), kExitTimeout);
    EXPECT_EQ(exitCodeForDBusError(prefix + "Timeout", "x"), kExitTimeout);
    // "Failed" with another text comes from the bus or the library (for example a message that
    // could not be built), not from a transfer: it must not read as a link problem.
    EXPECT_EQ(exitCodeForDBusError(prefix + "Failed", "Marshalling failed"), kExitOtherError);
    EXPECT_EQ(exitCodeForDBusError(prefix + "UnknownMethod", "x"), kExitOtherError);
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
