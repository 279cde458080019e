#include "dbusclient.h"

#include <cstdio>

#include <QDBusArgument>
#include <QDBusMetaType>
#include <QDBusPendingCallWatcher>
#include <QDBusVariant>
#include <QEventLoop>

#include <usbd/protocol.h>

#include "arguments.h"
#include "commands.h"
#include "progress.h"
#include "requests.h"

namespace usbdctl {

namespace {

constexpr char kPropertiesInterface[] = "org.freedesktop.DBus.Properties";
constexpr int kPropertyTimeoutMs = 5000;
constexpr int kQuietTimeoutMs = 1000;

} // namespace

DBusClient::DBusClient(const Arguments &arguments)
    : session_(arguments.has(QStringLiteral("session"))),
      connection_(session_ ? QDBusConnection::sessionBus() : QDBusConnection::systemBus())
{
    // The send methods take aa{sv}; QtDBus knows the element type but not the list of them.
    qDBusRegisterMetaType<QList<QVariantMap>>();
}

DBusClient::~DBusClient() = default;

QString DBusClient::busName() const
{
    return session_ ? QStringLiteral("session bus") : QStringLiteral("system bus");
}

int DBusClient::connect()
{
    if (connection_.isConnected())
        return kExitOk;
    const QDBusError error = connection_.lastError();
    const int code = exitCodeForDBusError(error.name(), error.message());
    if (code == kExitAccessDenied) {
        std::fprintf(stderr, "usbdctl: access to the %s denied: %s\n", qPrintable(busName()),
                     qPrintable(error.message()));
        return code;
    }
    const char *variable = session_ ? "DBUS_SESSION_BUS_ADDRESS" : "DBUS_SYSTEM_BUS_ADDRESS";
    std::fprintf(stderr, "usbdctl: cannot connect to the %s: %s\n", qPrintable(busName()),
                 qPrintable(error.message().isEmpty() ? error.name() : error.message()));
    std::fprintf(stderr, "usbdctl: (is D-Bus running? %s selects another bus address)\n", variable);
    return kExitOtherError;
}

UsbdProxy &DBusClient::daemon(int timeoutMs)
{
    if (!daemon_)
        daemon_ = std::make_unique<UsbdProxy>(QLatin1String(usbd::kDBusService),
                                              QLatin1String(usbd::kDBusObjectPath), connection_);
    daemon_->setTimeout(timeoutMs);
    return *daemon_;
}

int DBusClient::reportTransferFailed(const QString &causes)
{
    const std::optional<int> linkType = linkTypeQuietly();
    if (linkType && *linkType == 0) {
        std::fprintf(stderr, "usbdctl: link down: no host to send to (link_type: %s)\n",
                     qPrintable(describeLinkType(*linkType)));
    } else {
        const QString link =
            linkType ? QStringLiteral(" (link_type: %1)").arg(describeLinkType(*linkType))
                     : QString();
        std::fprintf(
            stderr, "usbdctl: usbd could not send the request%s: %s; its log says which\n",
            qPrintable(link),
            qPrintable(causes.isEmpty() ? QStringLiteral("the transfer broke off") : causes));
    }
    return kExitTransferFailed;
}

int DBusClient::report(const QString &errorName, const QString &message, int timeoutMs,
                       const QString &causes)
{
    const int code = exitCodeForDBusError(errorName, message);
    switch (code) {
    case kExitNotRunning:
        std::fprintf(stderr, "usbdctl: usbd is not running: nothing owns %s on the %s\n",
                     usbd::kDBusService, qPrintable(busName()));
        break;
    case kExitAccessDenied:
        std::fprintf(stderr,
                     "usbdctl: access denied: the %s lets only root and members of the group "
                     "\"usbd\" use %s\n",
                     qPrintable(busName()), usbd::kDBusService);
        break;
    case kExitTimeout:
        return reportNoAnswer(timeoutMs);
    case kExitTransferFailed:
        return reportTransferFailed(causes);
    default:
        std::fprintf(stderr, "usbdctl: %s: %s\n", qPrintable(errorName), qPrintable(message));
        break;
    }
    return code;
}

int DBusClient::finish(const QDBusPendingCall &call, int timeoutMs, Progress *progress,
                       const QString &causes)
{
    QDBusPendingCallWatcher watcher(call);
    if (progress)
        progress->start();
    if (!watcher.isFinished()) {
        // A nested loop rather than waitForFinished(), so that the progress timer keeps firing.
        QEventLoop loop;
        QObject::connect(&watcher, &QDBusPendingCallWatcher::finished, &loop, &QEventLoop::quit);
        loop.exec();
    }

    const QDBusMessage answer = watcher.reply();
    const bool succeeded = answer.type() == QDBusMessage::ReplyMessage;
    if (progress)
        progress->finish(succeeded);
    if (!succeeded)
        return report(answer.errorName(), answer.errorMessage(), timeoutMs, causes);
    return kExitOk;
}

QDBusMessage DBusClient::properties(const QString &method, const QVariantList &arguments,
                                    int timeoutMs)
{
    QDBusMessage message = QDBusMessage::createMethodCall(
        QLatin1String(usbd::kDBusService), QLatin1String(usbd::kDBusObjectPath),
        QLatin1String(kPropertiesInterface), method);
    message.setArguments(QVariantList{QLatin1String(UsbdProxy::staticInterfaceName())} + arguments);
    return connection_.call(message, QDBus::Block, timeoutMs);
}

int DBusClient::readProperties(QVariantMap *properties)
{
    const QDBusMessage answer = this->properties(QStringLiteral("GetAll"), {}, kPropertyTimeoutMs);
    if (answer.type() != QDBusMessage::ReplyMessage)
        return report(answer.errorName(), answer.errorMessage(), kPropertyTimeoutMs);
    if (answer.arguments().isEmpty())
        return report(QStringLiteral("usbdctl.EmptyReply"),
                      QStringLiteral("GetAll answered nothing"));
    *properties = qdbus_cast<QVariantMap>(answer.arguments().at(0));
    return kExitOk;
}

int DBusClient::readProperty(const QString &name, QVariant *value)
{
    const QDBusMessage answer = properties(QStringLiteral("Get"), {name}, kPropertyTimeoutMs);
    if (answer.type() != QDBusMessage::ReplyMessage)
        return report(answer.errorName(), answer.errorMessage(), kPropertyTimeoutMs);
    if (answer.arguments().isEmpty())
        return report(QStringLiteral("usbdctl.EmptyReply"), QStringLiteral("Get answered nothing"));
    *value = qvariant_cast<QDBusVariant>(answer.arguments().at(0)).variant();
    return kExitOk;
}

std::optional<int> DBusClient::linkTypeQuietly()
{
    if (!connection_.isConnected())
        return std::nullopt;
    const QDBusMessage answer =
        properties(QStringLiteral("Get"), {QStringLiteral("link_type")}, kQuietTimeoutMs);
    if (answer.type() != QDBusMessage::ReplyMessage || answer.arguments().isEmpty())
        return std::nullopt;
    bool ok = false;
    const int value = qvariant_cast<QDBusVariant>(answer.arguments().at(0)).variant().toInt(&ok);
    return ok ? std::optional<int>(value) : std::nullopt;
}

int withDBusClient(const Arguments &arguments, const std::function<int(DBusClient &)> &body)
{
    DBusClient client(arguments);
    if (const int code = client.connect(); code != kExitOk)
        return code;
    return body(client);
}

} // namespace usbdctl
