#include "requests.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <limits>

#include <QFile>
#include <QFileInfo>

#include <usbd/protocol.h>

#include "arguments.h"

namespace usbdctl {

namespace {

constexpr char kErrorPrefix[] = "org.freedesktop.DBus.Error.";

} // namespace

QString linkTypeName(int linkType)
{
    switch (linkType) {
    case 0:
        return QStringLiteral("none");
    case 1:
        return QStringLiteral("usb");
    case 2:
        return QStringLiteral("ios-mfi");
    case 3:
        return QStringLiteral("ios-wifi");
    default:
        return QStringLiteral("unknown");
    }
}

QString describeLinkType(int linkType)
{
    return QStringLiteral("%1 (%2)").arg(linkTypeName(linkType)).arg(linkType);
}

QString formatProperty(const QString &name, const QVariant &value)
{
    if (name == QLatin1String("link_type"))
        return describeLinkType(value.toInt());
    if (name == QLatin1String("usb_super_speed"))
        return value.toBool() ? QStringLiteral("yes") : QStringLiteral("no");
    if (name == QLatin1String("charge_current_max"))
        return QStringLiteral("%1 mA").arg(value.toInt());
    return value.toString();
}

int exitCodeForDBusError(const QString &errorName, const QString &message)
{
    if (!errorName.startsWith(QLatin1String(kErrorPrefix)))
        return kExitOtherError;
    const QString name = errorName.mid(int(sizeof(kErrorPrefix)) - 1);
    if (name == QLatin1String("ServiceUnknown") || name == QLatin1String("NameHasNoOwner"))
        return kExitNotRunning;
    if (name == QLatin1String("AccessDenied"))
        return kExitAccessDenied;
    if (name == QLatin1String("NoReply") || name == QLatin1String("Timeout")
        || name == QLatin1String("TimedOut"))
        return kExitTimeout;
    // Failed is also what a bus or a library may answer for problems of its own; only the
    // daemon's own text means that the transfer itself went wrong.
    if (name == QLatin1String("Failed") && message == QLatin1String(usbd::kFailedToSendText))
        return kExitTransferFailed;
    return kExitOtherError;
}

QString localFileProblem(const QString &path)
{
    // QFileInfo says "does not exist" for a file behind a directory the caller may not enter;
    // the errno of the calls themselves tells the two apart.
    auto problem = [](int error) {
        if (error == ENOENT || error == ENOTDIR)
            return QStringLiteral("no such file");
        if (error == EACCES || error == EPERM)
            return QStringLiteral("permission denied");
        return QString::fromLocal8Bit(std::strerror(error));
    };
    const QByteArray name = QFile::encodeName(path);
    struct stat info {};
    if (::stat(name.constData(), &info) != 0)
        return problem(errno);
    if (!S_ISREG(info.st_mode))
        return QStringLiteral("not a regular file");
    if (::access(name.constData(), R_OK) != 0)
        return problem(errno);
    return QString();
}

bool planFilePieces(const QStringList &files, const FileOptions &options,
                    QList<usbd::dbusmaps::FilePiece> *out, PlanError *error)
{
    constexpr quint64 kMaxOffset = std::numeric_limits<quint32>::max();
    constexpr quint64 kMaxSize = std::numeric_limits<qint32>::max();

    QList<usbd::dbusmaps::FilePiece> pieces;
    for (const QString &file : files) {
        const QString problem = localFileProblem(file);
        if (!problem.isEmpty()) {
            *error = {kExitLocalFile, QStringLiteral("%1: %2").arg(file, problem)};
            return false;
        }
        const QFileInfo info(file);
        const quint64 fileSize = quint64(info.size());
        // The daemon maps the whole file, and an empty one cannot be mapped.
        if (fileSize == 0) {
            *error = {kExitLocalFile,
                      QStringLiteral("%1: empty; the daemon cannot send an empty file").arg(file)};
            return false;
        }
        const quint64 offset = options.offset.value_or(0);
        if (offset > kMaxOffset) {
            *error = {kExitUsage, QStringLiteral("--offset %1 is too large (at most %2)")
                                      .arg(offset)
                                      .arg(kMaxOffset)};
            return false;
        }
        if (offset > fileSize) {
            *error = {kExitUsage, QStringLiteral("%1: offset %2 lies past the end of the file "
                                                 "(%3 bytes)")
                                      .arg(file)
                                      .arg(offset)
                                      .arg(fileSize)};
            return false;
        }
        const quint64 size = options.size.value_or(fileSize - offset);
        if (size > fileSize - offset) {
            *error = {kExitUsage, QStringLiteral("%1: offset %2 + size %3 runs past the end of the "
                                                 "file (%4 bytes)")
                                      .arg(file)
                                      .arg(offset)
                                      .arg(size)
                                      .arg(fileSize)};
            return false;
        }
        if (size > kMaxSize) {
            *error = {kExitUsage, QStringLiteral("%1: %2 bytes are more than one piece can carry "
                                                 "(%3); send it in parts with --offset and --size")
                                      .arg(file)
                                      .arg(size)
                                      .arg(kMaxSize)};
            return false;
        }
        usbd::dbusmaps::FilePiece piece;
        piece.path = info.absoluteFilePath();
        piece.offset = quint32(offset);
        piece.size = quint32(size);
        piece.elementAlignment = options.elementAlignment;
        piece.elementPadding = options.elementPadding;
        piece.sessionId = options.sessionId;
        pieces.append(piece);
    }
    if (!checkSegments(pieces.size(), options.elementPadding, error))
        return false;
    *out = pieces;
    return true;
}

bool checkSegments(int pieces, quint32 elementPadding, PlanError *error)
{
    const std::size_t segments = std::size_t(pieces) * usbd::segmentsOf(elementPadding);
    if (segments <= usbd::kMaxSegments)
        return true;
    *error = {kExitUsage,
              QStringLiteral("%1 pieces%2 need %3 segments; usbd sends at most %4 in one request "
                             "(%4 pieces, or %5 with padding): send them in several requests")
                  .arg(pieces)
                  .arg(elementPadding ? QStringLiteral(" with padding") : QString())
                  .arg(segments)
                  .arg(usbd::kMaxSegments)
                  .arg(usbd::kMaxSegments / 2)};
    return false;
}

std::optional<HandleEntry> parseHandleEntry(const QString &text)
{
    const QStringList parts = text.split(QLatin1Char(':'));
    if (parts.size() != 3)
        return std::nullopt;
    const auto handle = parseUnsigned(parts.at(0), std::numeric_limits<quint64>::max());
    const auto offset = parseUnsigned(parts.at(1), std::numeric_limits<quint32>::max());
    const auto size = parseUnsigned(parts.at(2), std::numeric_limits<quint32>::max());
    if (!handle || !offset || !size)
        return std::nullopt;
    return HandleEntry{*handle, quint32(*offset), quint32(*size)};
}

std::optional<QByteArray> parseHex(const QString &text)
{
    QString digits = text;
    digits.remove(QLatin1Char(' ')).remove(QLatin1Char(':'));
    if (digits.size() % 2 != 0)
        return std::nullopt;
    for (const QChar c : digits) {
        if (!isxdigit(c.toLatin1()))
            return std::nullopt;
    }
    return QByteArray::fromHex(digits.toLatin1());
}

} // namespace usbdctl
