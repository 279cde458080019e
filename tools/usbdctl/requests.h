#pragma once

#include <optional>

#include <QList>
#include <QString>
#include <QVariant>

#include <usbd/dbusmaps.h>

// What usbdctl puts on the wire, kept apart from the commands so that it can be checked
// without a daemon: the plan of a send-file request (the maps themselves are written by
// <usbd/dbusmaps.h>, from the daemon's own key and type table), the socket-send entries, and how
// a failure becomes an exit status.
namespace usbdctl {

// Exit statuses; scripts tell the common failures apart by them, so they never change.
constexpr int kExitOk = 0;
constexpr int kExitUsage = 1;
constexpr int kExitNotRunning = 2;
constexpr int kExitAccessDenied = 3;
constexpr int kExitLocalFile = 4;
constexpr int kExitTransferFailed = 5;
constexpr int kExitOtherError = 6;
constexpr int kExitTimeout = 7;
constexpr int kExitGone = 8; // watch: usbd left the bus, or the bus connection was lost

// "none", "usb", "ios-mfi", "ios-wifi"; "unknown" for any other number.
QString linkTypeName(int linkType);
// "usb (1)": the name for people, the number for matching against the D-Bus value.
QString describeLinkType(int linkType);

// The daemon's properties in the order status and watch show them: the link first, since the
// other two only mean something while there is one.
inline constexpr const char *kPropertyOrder[] = {"link_type", "usb_super_speed",
                                                 "charge_current_max"};
// A property's value for people: "usb (1)", "yes", "500 mA".
QString formatProperty(const QString &name, const QVariant &value);

// Exit status for a D-Bus error reply or connection error.
int exitCodeForDBusError(const QString &errorName, const QString &message);

// Options of send-file that apply to every file of the request.
struct FileOptions {
    std::optional<quint64> offset;
    std::optional<quint64> size; // absent: from offset to the end of each file
    quint32 elementAlignment = 0;
    quint32 elementPadding = 0;
    quint16 sessionId = 0;
};

struct PlanError {
    int exitCode = kExitOk;
    QString message;
};

// Why a local file cannot be read: "" for a readable regular file, else "no such file",
// "permission denied" (the file or a directory on its way), "not a regular file" or the
// system's own text.
QString localFileProblem(const QString &path);

// Turns file names into send_file pieces: absolute paths (the daemon has its own working
// directory), each file a readable, non-empty regular file here, and offset + size within it.
// The daemon narrows offset to 32 bits and reads size as a signed 32-bit value, so a piece is
// only built with values that survive that unchanged. Fails with kExitLocalFile for a file that
// is missing, not a regular file, unreadable or empty, and kExitUsage for a range that does not
// fit or more pieces than one request can carry.
bool planFilePieces(const QStringList &files, const FileOptions &options,
                    QList<usbd::dbusmaps::FilePiece> *out, PlanError *error);

// The daemon sends a request in at most usbd::kMaxSegments segments, one per piece and one per
// padding; a longer request would fail there like a broken link. False, with kExitUsage and the
// reason, when `pieces` pieces with that padding need more.
bool checkSegments(int pieces, quint32 elementPadding, PlanError *error);

// A handle entry of socket-send, written HANDLE:OFFSET:SIZE.
struct HandleEntry {
    quint64 handle = 0;
    quint32 offset = 0;
    quint32 size = 0;
};
std::optional<HandleEntry> parseHandleEntry(const QString &text);

// Bytes written as hexadecimal digits, optionally separated by spaces or colons ("de ad",
// "de:ad", "dead").
std::optional<QByteArray> parseHex(const QString &text);

} // namespace usbdctl
