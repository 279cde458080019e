// The commands that talk to the daemon over its request socket.

#include <sys/un.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>

#include <usbd/client.h>
#include <usbd/protocol.h>

#include "arguments.h"
#include "commands.h"
#include "dbusclient.h"
#include "progress.h"
#include "requests.h"

namespace usbdctl {

namespace {

constexpr int kPollSliceMs = 200;
// How long interrupt waits for the daemon to take the request off the connection.
constexpr int kInterruptReadMs = 2000;

QString socketPath(const Arguments &arguments)
{
    return arguments.has(QStringLiteral("socket")) ? arguments.value(QStringLiteral("socket"))
                                                   : QString::fromLatin1(usbd::kSocketPath);
}

int reportSocketError(int error, const QString &path, const char *what)
{
    switch (error) {
    case -ENOENT:
    case -ECONNREFUSED:
        std::fprintf(stderr, "usbdctl: usbd is not running: nothing listens on %s\n",
                     qPrintable(path));
        return kExitNotRunning;
    case -EACCES:
    case -EPERM:
        std::fprintf(stderr, "usbdctl: access denied to %s\n", qPrintable(path));
        return kExitAccessDenied;
    case -EPIPE:
    case -ECONNRESET:
        std::fprintf(stderr, "usbdctl: usbd closed the connection %s\n", what);
        return kExitOtherError;
    default:
        std::fprintf(stderr, "usbdctl: %s %s: %s\n", qPrintable(path), what, std::strerror(-error));
        return kExitOtherError;
    }
}

int connectTo(usbd::client::Connection *connection, const QString &path)
{
    if (std::size_t(path.toLocal8Bit().size()) >= sizeof(sockaddr_un::sun_path)) {
        std::fprintf(stderr, "usbdctl: socket path too long: %s\n", qPrintable(path));
        return kExitUsage;
    }
    const int result = connection->connect(path.toStdString());
    return result == 0 ? kExitOk : reportSocketError(result, path, "connecting");
}

} // namespace

int runSocketSend(const Arguments &arguments)
{
    if (!arguments.positionals().isEmpty())
        return usageError(QStringLiteral(
            "socket-send takes its entries as options (--text, --hex, --file, --handle)"));
    int exitCode = kExitOk;
    quint64 requestId = 0, alignment = 0, padding = 0;
    int timeoutMs = 0;
    const quint64 kMax32 = std::numeric_limits<quint32>::max();
    if (!numberOption(arguments, QStringLiteral("id"), kMax32, 1, &requestId, &exitCode)
        || !numberOption(arguments, QStringLiteral("alignment"), kMax32, 0, &alignment, &exitCode)
        || !numberOption(arguments, QStringLiteral("padding"), kMax32, 0, &padding, &exitCode)
        || !timeoutOption(arguments, &timeoutMs, &exitCode))
        return exitCode;

    // Entries go out in the order of the options, which is why they are read in command-line
    // order rather than per option.
    usbd::client::SendRequest request{quint32(requestId)};
    quint64 total = 0;
    for (const auto &[name, value] : arguments.ordered()) {
        QByteArray bytes;
        if (name == QLatin1String("text")) {
            bytes = value.toUtf8();
        } else if (name == QLatin1String("hex")) {
            const auto parsed = parseHex(value);
            if (!parsed)
                return usageError(
                    QStringLiteral("--hex needs pairs of hexadecimal digits: %1").arg(value));
            bytes = *parsed;
        } else if (name == QLatin1String("file")) {
            const QString problem = localFileProblem(value);
            QFile file(value);
            if (!problem.isEmpty() || !file.open(QIODevice::ReadOnly)) {
                std::fprintf(stderr, "usbdctl: %s: %s\n", qPrintable(value),
                             qPrintable(problem.isEmpty() ? file.errorString() : problem));
                return kExitLocalFile;
            }
            // More than one request can carry is refused below; reading one byte beyond that is
            // enough to know.
            bytes = file.read(qint64(usbd::client::kMaxRequestSize) + 1);
        } else if (name == QLatin1String("handle")) {
            const auto entry = parseHandleEntry(value);
            if (!entry)
                return usageError(
                    QStringLiteral("--handle needs HANDLE:OFFSET:SIZE, got %1").arg(value));
            request.addHandle(entry->handle, entry->offset, entry->size, quint32(alignment),
                              quint32(padding));
            total += quint64(entry->size) + padding;
            continue;
        } else {
            continue;
        }
        if (bytes.size() > int(usbd::client::kMaxRequestSize))
            return usageError(
                QStringLiteral("%1 bytes do not fit in one socket request (at most %2 in "
                               "all); use send-file")
                    .arg(bytes.size())
                    .arg(usbd::client::kMaxRequestSize));
        request.addMemory(bytes.constData(), quint32(bytes.size()), quint32(alignment),
                          quint32(padding));
        total += quint64(bytes.size()) + padding;
    }
    std::vector<std::uint8_t> encoded;
    std::string why;
    if (!request.encode(&encoded, &why))
        return usageError(QString::fromStdString(why));

    const QString path = socketPath(arguments);
    usbd::client::Connection connection;
    if (const int code = connectTo(&connection, path); code != kExitOk)
        return code;
    if (const int result = connection.send(encoded); result != 0)
        return reportSocketError(result, path, "sending the request");

    Progress progress(stdout, QStringLiteral("sending"), QStringLiteral("sent"), total);
    progress.start();
    QElapsedTimer clock;
    clock.start();
    usbd::client::Response response;
    int result = -ETIMEDOUT;
    // Waited for in slices so that the progress line keeps moving.
    while (clock.elapsed() < timeoutMs) {
        const int slice = int(qMin<qint64>(kPollSliceMs, timeoutMs - clock.elapsed()));
        result = connection.receive(&response, slice);
        if (result != -ETIMEDOUT)
            break;
        QCoreApplication::processEvents();
    }
    progress.finish(result == 0 && response.sent());
    if (result == -ETIMEDOUT)
        return reportNoAnswer(timeoutMs);
    if (result != 0)
        return reportSocketError(result, path, "before answering");
    if (response.requestId != quint32(requestId)) {
        std::fprintf(stderr, "usbdctl: usbd answered request %u, not %llu\n", response.requestId,
                     static_cast<unsigned long long>(requestId));
        return kExitOtherError;
    }
    if (response.sent())
        return kExitOk;

    DBusClient client(arguments);
    return client.reportTransferFailed(
        QStringLiteral("a shared-memory handle it could not import, or the transfer broke off"));
}

int runInterrupt(const Arguments &arguments)
{
    if (!arguments.positionals().isEmpty())
        return usageError(QStringLiteral("interrupt takes no arguments"));
    const QString path = socketPath(arguments);
    usbd::client::Connection connection;
    if (const int code = connectTo(&connection, path); code != kExitOk)
        return code;
    if (const int result = connection.send(usbd::client::encodeInterrupt()); result != 0)
        return reportSocketError(result, path, "sending the interrupt");
    // Closing right after the write could lose the request: a hang-up that the daemon sees
    // together with the unread bytes closes the connection unread. Shutting down only the
    // sending side and waiting for the daemon to close makes sure that it has read it.
    connection.shutdownSending();
    usbd::client::Response ignored;
    const int result = connection.receive(&ignored, kInterruptReadMs);
    if (result == -ETIMEDOUT) {
        std::fprintf(stderr, "usbdctl: usbd did not take the interrupt within %d ms\n",
                     kInterruptReadMs);
        return kExitTimeout;
    }
    return kExitOk;
}

} // namespace usbdctl
