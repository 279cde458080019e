#include "ostr/Common.h"

#include <QCoreApplication>
#include <QDBusConnectionInterface>
#include <QDBusError>
#include <QDBusReply>
#include <QMutex>
#include <QMutexLocker>

#include <cstdio>
#include <cstdlib>

namespace {

const char kServicePrefix[] = "com.korvane.";
const char kObjectPathPrefix[] = "/com/korvane/";

// The connection is set once by init() in the main thread, but Bus::send() reads it from
// worker threads; QDBusConnection copies are cheap, so a plain lock around the copy is enough.
QMutex connectionMutex;
QDBusConnection *connectionPtr = nullptr;

const char *busLabel(bool session)
{
    return session ? "session bus" : "system bus";
}

// Start-up cannot go on without the bus, and a daemon that half-starts is harder to diagnose
// than one that stops with a single line saying why.
[[noreturn]] void die(const QString &message)
{
    const QByteArray app = QCoreApplication::applicationName().toLocal8Bit();
    std::fprintf(stderr, "%s: %s\n", app.isEmpty() ? "ostr" : app.constData(),
                 message.toLocal8Bit().constData());
    std::fflush(stderr);
    std::exit(1);
}

} // namespace

bool Common::init(bool useSessionBus, bool claimServiceName)
{
    QDBusConnection connection =
        useSessionBus ? QDBusConnection::sessionBus() : QDBusConnection::systemBus();
    const QString bus = QString::fromLatin1(busLabel(useSessionBus));
    const QString name = serviceName();

    if (!connection.isConnected()) {
        const QString error = connection.lastError().message();
        if (claimServiceName)
            die(QStringLiteral("cannot connect to the %1 to register %2: %3")
                    .arg(bus, name, error));
        die(QStringLiteral("cannot connect to the %1: %2").arg(bus, error));
    }

    if (claimServiceName) {
        // No queueing and no replacement: a second instance must fail at once instead of
        // waiting silently in the queue or taking the name from the running one.
        const QDBusReply<QDBusConnectionInterface::RegisterServiceReply> reply =
            connection.interface()->registerService(name,
                                                    QDBusConnectionInterface::DontQueueService,
                                                    QDBusConnectionInterface::DontAllowReplacement);
        if (!reply.isValid())
            die(QStringLiteral("cannot register %1 on the %2: %3")
                    .arg(name, bus, reply.error().message()));
        if (reply.value() != QDBusConnectionInterface::ServiceRegistered)
            die(QStringLiteral("the name %1 is already owned on the %2").arg(name, bus));
    }

    QMutexLocker lock(&connectionMutex);
    if (connectionPtr)
        *connectionPtr = connection;
    else
        connectionPtr = new QDBusConnection(connection);
    return true;
}

QDBusConnection Common::connection()
{
    QMutexLocker lock(&connectionMutex);
    if (connectionPtr)
        return *connectionPtr;
    return QDBusConnection(QString());
}

QString Common::serviceName()
{
    return QLatin1String(kServicePrefix) + QCoreApplication::applicationName();
}

QString Common::objectPath(const QString &objectName)
{
    return QLatin1String(kObjectPathPrefix) + objectName;
}
