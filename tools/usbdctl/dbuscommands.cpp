// The commands that talk to the daemon over D-Bus.

#include <cstdio>
#include <limits>
#include <memory>
#include <vector>

#include <QCoreApplication>
#include <QDBusServiceWatcher>
#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QThread>
#include <QTimer>

#include <arvomemshare.h>
#include <usbd/dbusmaps.h>
#include <usbd/protocol.h>

#include "arguments.h"
#include "commands.h"
#include "dbusclient.h"
#include "progress.h"
#include "requests.h"

namespace usbdctl {

namespace {

constexpr int kMaxSendDataBytes = 255;
constexpr int kReceivePollMs = 100;
constexpr int kConnectionCheckMs = 500;

QString timestamp()
{
    return QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz"));
}

void printLine(const QString &line)
{
    std::fprintf(stdout, "%s\n", qPrintable(line));
    // Flushed per line: watch is typically read through a pipe by another program, which must
    // see each change when it happens, not when a buffer fills.
    std::fflush(stdout);
}

// Prints property changes as they are announced, and the service leaving and coming back.
class PropertyWatcher : public QObject {
    Q_OBJECT
public:
    PropertyWatcher(DBusClient *client, quint64 count) : client_(client), remaining_(count) {}

    bool subscribe()
    {
        return client_->connection().connect(
            QLatin1String(usbd::kDBusService), QLatin1String(usbd::kDBusObjectPath),
            QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("PropertiesChanged"),
            this, SLOT(onPropertiesChanged(QString, QVariantMap, QStringList)));
    }

public slots:
    void onPropertiesChanged(const QString &interface, const QVariantMap &changed,
                             const QStringList &invalidated)
    {
        if (interface != QLatin1String(UsbdProxy::staticInterfaceName()))
            return;
        for (auto it = changed.begin(); it != changed.end(); ++it)
            printChange(it.key(), it.value());
        for (const QString &name : invalidated) {
            QVariant value;
            if (client_->readProperty(name, &value) == kExitOk)
                printChange(name, value);
        }
    }

    // A watch that went on after the daemon or the bus had gone would look like a quiet link
    // to whoever reads its output; it ends instead, so that the reader can tell.
    void onServiceGone() { end(QStringLiteral("usbd left the bus")); }

    void onDisconnected()
    {
        end(QStringLiteral("lost the connection to the %1").arg(client_->busName()));
    }

    void checkConnected()
    {
        if (!client_->connection().isConnected())
            onDisconnected();
    }

    // The first values, printed and remembered as the base that changes are told against.
    void printInitial(const QVariantMap &properties)
    {
        for (const char *name : kPropertyOrder) {
            const QString key = QLatin1String(name);
            const QVariant value = properties.value(key);
            last_.insert(key, value);
            printLine(
                QStringLiteral("%1 %2: %3").arg(timestamp(), key, formatProperty(key, value)));
        }
    }

private:
    void end(const QString &why)
    {
        if (finished_)
            return;
        finished_ = true;
        std::fprintf(stderr, "usbdctl: %s: %s, watch ends\n", qPrintable(timestamp()),
                     qPrintable(why));
        QCoreApplication::exit(kExitGone);
    }

    void printChange(const QString &name, const QVariant &value)
    {
        // Lines of a batch that arrived together are still delivered after exit() was asked for.
        if (finished_)
            return;
        // The daemon announces a property on every link event, also when its value stays the
        // same; only a new value is a change.
        const auto last = last_.constFind(name);
        if (last != last_.constEnd() && *last == value)
            return;
        last_.insert(name, value);
        printLine(QStringLiteral("%1 %2: %3").arg(timestamp(), name, formatProperty(name, value)));
        if (remaining_ != 0 && --remaining_ == 0) {
            finished_ = true;
            QCoreApplication::exit(kExitOk);
        }
    }

    DBusClient *client_;
    quint64 remaining_; // 0: no limit
    bool finished_ = false;
    QVariantMap last_;
};

bool readSmallFile(const QString &path, int limit, QByteArray *out, int *exitCode)
{
    const QString problem = localFileProblem(path);
    if (!problem.isEmpty()) {
        std::fprintf(stderr, "usbdctl: %s: %s\n", qPrintable(path), qPrintable(problem));
        *exitCode = kExitLocalFile;
        return false;
    }
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "usbdctl: %s: %s\n", qPrintable(path), qPrintable(file.errorString()));
        *exitCode = kExitLocalFile;
        return false;
    }
    // One byte more than allowed tells a file that is too large from one that just fits.
    *out = file.read(limit + 1);
    return true;
}

} // namespace

int runStatus(const Arguments &arguments)
{
    if (!arguments.positionals().isEmpty())
        return usageError(QStringLiteral("status takes no arguments"));
    return withDBusClient(arguments, [](DBusClient &client) {
        QVariantMap properties;
        if (const int code = client.readProperties(&properties); code != kExitOk)
            return code;
        for (const char *name : kPropertyOrder) {
            const QString key = QLatin1String(name);
            printLine(QStringLiteral("%1: %2").arg(
                key, properties.contains(key) ? formatProperty(key, properties.value(key))
                                              : QStringLiteral("(not offered)")));
        }
        return kExitOk;
    });
}

int runWatch(const Arguments &arguments)
{
    if (!arguments.positionals().isEmpty())
        return usageError(QStringLiteral("watch takes no arguments"));
    quint64 count = 0;
    int exitCode = kExitOk;
    if (!numberOption(arguments, QStringLiteral("count"), std::numeric_limits<quint32>::max(), 0,
                      &count, &exitCode))
        return exitCode;

    return withDBusClient(arguments, [count](DBusClient &client) {
        PropertyWatcher watcher(&client, count);
        // Subscribed before the current values are read: a change between the two is then
        // printed after them rather than lost, and a reader that has seen the first values
        // knows that every later change will reach it.
        if (!watcher.subscribe()) {
            std::fprintf(stderr, "usbdctl: cannot subscribe to property changes: %s\n",
                         qPrintable(client.connection().lastError().message()));
            return kExitOtherError;
        }
        QDBusServiceWatcher service(QLatin1String(usbd::kDBusService), client.connection(),
                                    QDBusServiceWatcher::WatchForOwnerChange);
        QObject::connect(&service, &QDBusServiceWatcher::serviceUnregistered, &watcher,
                         &PropertyWatcher::onServiceGone);
        // The bus's own goodbye when the connection drops, and a look now and then in case it
        // is never delivered (a bus that simply vanishes).
        client.connection().connect(QString(), QStringLiteral("/org/freedesktop/DBus/Local"),
                                    QStringLiteral("org.freedesktop.DBus.Local"),
                                    QStringLiteral("Disconnected"), &watcher,
                                    SLOT(onDisconnected()));
        QTimer connectionCheck;
        QObject::connect(&connectionCheck, &QTimer::timeout, &watcher,
                         &PropertyWatcher::checkConnected);
        connectionCheck.start(kConnectionCheckMs);

        QVariantMap properties;
        if (const int code = client.readProperties(&properties); code != kExitOk)
            return code;
        watcher.printInitial(properties);
        return QCoreApplication::exec();
    });
}

int runSendData(const Arguments &arguments)
{
    QByteArray data;
    int exitCode = kExitOk;
    const int sources = int(arguments.has(QStringLiteral("hex")))
                        + int(arguments.has(QStringLiteral("file")))
                        + int(!arguments.positionals().isEmpty());
    if (sources != 1 || arguments.positionals().size() > 1)
        return usageError(QStringLiteral("send-data needs exactly one of TEXT, --hex or --file"));
    if (arguments.has(QStringLiteral("hex"))) {
        const auto bytes = parseHex(arguments.value(QStringLiteral("hex")));
        if (!bytes)
            return usageError(QStringLiteral("--hex needs pairs of hexadecimal digits"));
        data = *bytes;
    } else if (arguments.has(QStringLiteral("file"))) {
        if (!readSmallFile(arguments.value(QStringLiteral("file")), kMaxSendDataBytes, &data,
                           &exitCode))
            return exitCode;
    } else {
        data = arguments.positionals().first().toUtf8();
    }
    if (data.size() > kMaxSendDataBytes)
        return usageError(
            QStringLiteral("send-data carries at most %1 bytes; use send-file for more")
                .arg(kMaxSendDataBytes));

    quint64 length = 0;
    if (!numberOption(arguments, QStringLiteral("length"), kMaxSendDataBytes, quint64(data.size()),
                      &length, &exitCode))
        return exitCode;
    // The daemon refuses such a request with the same answer as a link that is down.
    if (length > quint64(data.size()))
        return usageError(QStringLiteral("--length %1 is more than the %2 bytes given")
                              .arg(length)
                              .arg(data.size()));
    int timeoutMs = 0;
    if (!timeoutOption(arguments, &timeoutMs, &exitCode))
        return exitCode;

    return withDBusClient(arguments, [&](DBusClient &client) {
        Progress progress(stdout, QStringLiteral("sending"), QStringLiteral("sent"), length);
        return client.finish(client.daemon(timeoutMs).send_data(data, uchar(length)), timeoutMs,
                             &progress);
    });
}

int runSendFile(const Arguments &arguments)
{
    if (arguments.positionals().isEmpty())
        return usageError(QStringLiteral("send-file needs at least one FILE"));
    int exitCode = kExitOk;
    FileOptions options;
    quint64 value = 0;
    if (arguments.has(QStringLiteral("offset"))) {
        if (!numberOption(arguments, QStringLiteral("offset"), std::numeric_limits<quint64>::max(),
                          0, &value, &exitCode))
            return exitCode;
        options.offset = value;
    }
    if (arguments.has(QStringLiteral("size"))) {
        if (!numberOption(arguments, QStringLiteral("size"), std::numeric_limits<quint64>::max(), 0,
                          &value, &exitCode))
            return exitCode;
        options.size = value;
    }
    const quint64 kMaxInt = std::numeric_limits<qint32>::max();
    if (!numberOption(arguments, QStringLiteral("alignment"), kMaxInt, 0, &value, &exitCode))
        return exitCode;
    options.elementAlignment = quint32(value);
    if (!numberOption(arguments, QStringLiteral("padding"), kMaxInt, 0, &value, &exitCode))
        return exitCode;
    options.elementPadding = quint32(value);
    if (!numberOption(arguments, QStringLiteral("session-id"), 0xFFFF, 0, &value, &exitCode))
        return exitCode;
    options.sessionId = quint16(value);
    int timeoutMs = 0;
    if (!timeoutOption(arguments, &timeoutMs, &exitCode))
        return exitCode;

    QList<usbd::dbusmaps::FilePiece> pieces;
    PlanError error;
    if (!planFilePieces(arguments.positionals(), options, &pieces, &error)) {
        std::fprintf(stderr, "usbdctl: %s\n", qPrintable(error.message));
        return error.exitCode;
    }
    QList<QVariantMap> maps;
    quint64 total = 0;
    for (const usbd::dbusmaps::FilePiece &piece : pieces) {
        maps.append(usbd::dbusmaps::fileMap(piece));
        total += quint64(piece.size) + quint64(piece.elementPadding);
    }

    return withDBusClient(arguments, [&](DBusClient &client) {
        Progress progress(stdout, QStringLiteral("sending"), QStringLiteral("sent"), total);
        return client.finish(
            client.daemon(timeoutMs).send_file(maps), timeoutMs, &progress,
            QStringLiteral("it opens each file itself, by its absolute path and as "
                           "its own user (usbd under usbd.service), so a file it "
                           "cannot see or read fails the request, as does a file "
                           "that changed size; or the transfer broke off"));
    });
}

int runSendShm(const Arguments &arguments)
{
    if (arguments.positionals().isEmpty())
        return usageError(QStringLiteral("send-shm needs at least one FILE"));
    if (arguments.has(QStringLiteral("physical")) && arguments.has(QStringLiteral("virtual")))
        return usageError(QStringLiteral("give --physical or --virtual, not both"));
    int exitCode = kExitOk;
    quint64 alignment = 0, padding = 0, sessionId = 0;
    const quint64 kMaxInt = std::numeric_limits<qint32>::max();
    if (!numberOption(arguments, QStringLiteral("alignment"), kMaxInt, 0, &alignment, &exitCode)
        || !numberOption(arguments, QStringLiteral("padding"), kMaxInt, 0, &padding, &exitCode)
        || !numberOption(arguments, QStringLiteral("session-id"), 0xFFFF, 0, &sessionId, &exitCode))
        return exitCode;
    int timeoutMs = 0;
    if (!timeoutOption(arguments, &timeoutMs, &exitCode))
        return exitCode;

    // Checked first: the memory layer ends the process when it cannot open the allocator, and
    // a missing node deserves a sentence, not an abort.
    if (!QFileInfo::exists(QLatin1String(usbd::kIonDevicePath))) {
        std::fprintf(stderr,
                     "usbdctl: shared memory needs %s, which this system does not have (on a "
                     "development machine it exists inside the device emulator only)\n",
                     usbd::kIonDevicePath);
        return kExitOtherError;
    }

    QList<QFileInfo> files;
    for (const QString &path : arguments.positionals()) {
        const QString problem = localFileProblem(path);
        if (!problem.isEmpty()) {
            std::fprintf(stderr, "usbdctl: %s: %s\n", qPrintable(path), qPrintable(problem));
            return kExitLocalFile;
        }
        const QFileInfo info(path);
        if (info.size() == 0)
            return usageError(QStringLiteral("%1: empty; shared memory cannot be empty").arg(path));
        if (info.size() > std::numeric_limits<qint32>::max())
            return usageError(QStringLiteral("%1: larger than one shared buffer can be").arg(path));
        files.append(info);
    }
    PlanError limit;
    if (!checkSegments(files.size(), quint32(padding), &limit))
        return usageError(limit.message);

    // The daemon imports each buffer by handle from this process, so the memory must outlive
    // the reply: it is released only when this function returns.
    std::vector<std::unique_ptr<ArvoMemShare>> memories;
    QList<QVariantMap> maps;
    quint64 total = 0;
    for (const QFileInfo &info : files) {
        const quint32 size = quint32(info.size());
        auto memory = std::make_unique<ArvoMemShare>(size, false, nullptr);
        uchar *target = memory->data();
        if (!target) {
            std::fprintf(stderr, "usbdctl: cannot allocate %u bytes of shared memory\n", size);
            return kExitOtherError;
        }
        QFile file(info.filePath());
        if (!file.open(QIODevice::ReadOnly)
            || file.read(reinterpret_cast<char *>(target), size) != size) {
            std::fprintf(stderr, "usbdctl: %s: cannot read: %s\n", qPrintable(info.filePath()),
                         qPrintable(file.errorString()));
            return kExitLocalFile;
        }
        // Written through the CPU, read by the device: make it visible there.
        memory->sync();
        usbd::dbusmaps::ShmPiece piece;
        piece.handle = memory->shareHandle();
        piece.size = size;
        piece.elementAlignment = quint32(alignment);
        piece.elementPadding = quint32(padding);
        // Only the flag: the daemon picks the address itself (see the option's help).
        piece.usePhysicalAddress = !arguments.has(QStringLiteral("virtual"));
        piece.sessionId = quint16(sessionId);
        if (piece.handle == 0) {
            std::fprintf(stderr, "usbdctl: cannot share the memory for %s\n",
                         qPrintable(info.filePath()));
            return kExitOtherError;
        }
        maps.append(usbd::dbusmaps::shmMap(piece));
        total += quint64(size) + padding;
        memories.push_back(std::move(memory));
    }

    return withDBusClient(arguments, [&](DBusClient &client) {
        Progress progress(stdout, QStringLiteral("sending"), QStringLiteral("sent"), total);
        return client.finish(client.daemon(timeoutMs).send_shm_data(maps), timeoutMs, &progress,
                             QStringLiteral("it could not import the shared memory of this "
                                            "process, or the transfer broke off"));
    });
}

int runReceive(const Arguments &arguments)
{
    if (arguments.positionals().size() != 2)
        return usageError(QStringLiteral("receive needs FILE and SIZE"));
    const QString path = QFileInfo(arguments.positionals().at(0)).absoluteFilePath();
    const auto size =
        parseUnsigned(arguments.positionals().at(1), std::numeric_limits<qint32>::max());
    if (!size)
        return usageError(QStringLiteral("SIZE must be a number of bytes from 0 to %1")
                              .arg(std::numeric_limits<qint32>::max()));
    int exitCode = kExitOk;
    quint64 timeMs = 0;
    if (!numberOption(arguments, QStringLiteral("time-ms"), std::numeric_limits<quint32>::max(), 0,
                      &timeMs, &exitCode))
        return exitCode;
    int timeoutMs = 0;
    if (!timeoutOption(arguments, &timeoutMs, &exitCode))
        return exitCode;
    const bool wait = arguments.has(QStringLiteral("wait"));
    const QFileInfo directory(QFileInfo(path).absolutePath());
    if (!directory.isDir()) {
        std::fprintf(stderr, "usbdctl: %s: no such directory\n", qPrintable(directory.filePath()));
        return kExitLocalFile;
    }

    if (wait && QFileInfo::exists(path)) {
        // The daemon empties the file before it writes anyway; emptying it here first means
        // that an old file of the right size cannot pass for the received one.
        QFile old(path);
        if (!old.resize(0)) {
            std::fprintf(stderr, "usbdctl: %s: %s\n", qPrintable(path),
                         qPrintable(old.errorString()));
            return kExitLocalFile;
        }
    }

    const int answered = withDBusClient(arguments, [&](DBusClient &client) {
        return client.finish(client.daemon(timeoutMs).open_file(path, int(*size), uint(timeMs)),
                             timeoutMs);
    });
    if (answered != kExitOk || !wait)
        return answered;

    // The daemon answers before the first byte arrives and reports nothing later, so the file
    // itself is the only sign of progress.
    Progress progress(stdout, QStringLiteral("receiving"), QStringLiteral("received"), *size);
    progress.start();
    QElapsedTimer clock;
    clock.start();
    quint64 received = 0;
    for (;;) {
        received = quint64(QFileInfo(path).size());
        progress.setDone(received);
        if (QFileInfo::exists(path) && received >= *size)
            break;
        if (clock.elapsed() >= timeoutMs) {
            progress.finish(false);
            std::fprintf(stderr, "usbdctl: %s holds %llu of %llu bytes after %.1f s\n",
                         qPrintable(path), static_cast<unsigned long long>(received),
                         static_cast<unsigned long long>(*size), timeoutMs / 1000.0);
            return kExitTimeout;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, kReceivePollMs);
        QThread::msleep(kReceivePollMs);
    }
    progress.finish(true);
    return kExitOk;
}

} // namespace usbdctl

#include "dbuscommands.moc"
