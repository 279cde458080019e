#include "dbusclient.h"

#include <cstdio>

#include <QDBusArgument>
#include <QDBusMetaType>
#include <QDBusPendingCall>
#include <QDBusPendingCallWatcher>
#include <QDBusVariant>
#include <QEventLoop>

#include "progress.h"
#include "requests.h"

namespace usbdctl {

namespace {

constexpr char kPropertiesInterface[] = "org.freedesktop.DBus.Properties";
constexpr int kPropertyTimeoutMs = 5000;
constexpr int kQuietTimeoutMs = 1000;

} // namespace

DBusClient::DBusClient(bool sessionBus)
    : session_(sessionBus),
      connection_(sessionBus ? QDBusConnection::sessionBus() : QDBusConnection::systemBus())
{
    // The send methods take aa{sv}; QtDBus knows the element type but not the list of them.
    qDBusRegisterMetaType<QList<QVariantMap>>();
}

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

int DBusClient::reportTransferFailed(const QString &causes)
{
    const std::optional<int> linkType = linkTypeQuietly();
    if (linkType && *linkType == 0) {
        std::fprintf(stderr, "usbdctl: link down: no host to send to (link_type: %s)\n",
                     qPrintable(describeLinkType(*linkType)));
    } else {
        const QString link = linkType ? QStringLiteral(" (link_type: %1)").arg(describeLinkType(*linkType))
                                      : QString();
        std::fprintf(stderr, "usbdctl: usbd could not send the request%s: %s; its log says which\n",
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
        std::fprintf(stderr, "usbdctl: usbd is not running: nothing owns %s on the %s\n", kService,
                     qPrintable(busName()));
        break;
    case kExitAccessDenied:
        std::fprintf(stderr,
                     "usbdctl: access denied: the %s lets only root and members of the group "
                     "\"usbd\" use %s\n",
                     qPrintable(busName()), kService);
        break;
    case kExitTimeout:
        std::fprintf(stderr,
                     "usbdctl: no answer from usbd within %.1f s: the transfer is still under way, "
                     "or the request was dropped when the link changed\n",
                     timeoutMs / 1000.0);
        break;
    case kExitTransferFailed:
        return reportTransferFailed(causes);
    default:
        std::fprintf(stderr, "usbdctl: %s: %s\n", qPrintable(errorName), qPrintable(message));
        break;
    }
    return code;
}

int DBusClient::call(const QString &method, const QVariantList &arguments, int timeoutMs,
                     Progress *progress, QDBusMessage *reply, const QString &causes)
{
    QDBusMessage message = QDBusMessage::createMethodCall(QLatin1String(kService),
                                                          QLatin1String(kObjectPath),
                                                          QLatin1String(kInterface), method);
    message.setArguments(arguments);

    QDBusPendingCall pending = connection_.asyncCall(message, timeoutMs);
    QDBusPendingCallWatcher watcher(pending);
    if (!watcher.isFinished()) {
        // A nested loop rather than waitForFinished(), so that the progress timer keeps firing.
        QEventLoop loop;
        QObject::connect(&watcher, &QDBusPendingCallWatcher::finished, &loop, &QEventLoop::quit);
        if (progress)
            progress->start();
        loop.exec();
    } else if (progress) {
        progress->start();
    }

    const QDBusMessage answer = watcher.reply();
    const bool succeeded = answer.type() == QDBusMessage::ReplyMessage;
    if (progress)
        progress->finish(succeeded);
    if (!succeeded)
        return report(answer.errorName(), answer.errorMessage(), timeoutMs, causes);
    if (reply)
        *reply = answer;
    return kExitOk;
}

int DBusClient::readProperties(QVariantMap *properties)
{
    QDBusMessage message = QDBusMessage::createMethodCall(
        QLatin1String(kService), QLatin1String(kObjectPath), QLatin1String(kPropertiesInterface),
        QStringLiteral("GetAll"));
    message << QString::fromLatin1(kInterface);
    const QDBusMessage answer = connection_.call(message, QDBus::Block, kPropertyTimeoutMs);
    if (answer.type() != QDBusMessage::ReplyMessage)
        return report(answer.errorName(), answer.errorMessage(), kPropertyTimeoutMs);
    if (answer.arguments().isEmpty())
        return report(QStringLiteral("usbdctl.EmptyReply"), QStringLiteral("GetAll answered nothing"));
    *properties = qdbus_cast<QVariantMap>(answer.arguments().at(0));
    return kExitOk;
}

int DBusClient::readProperty(const QString &name, QVariant *value)
{
    QDBusMessage message = QDBusMessage::createMethodCall(
        QLatin1String(kService), QLatin1String(kObjectPath), QLatin1String(kPropertiesInterface),
        QStringLiteral("Get"));
    message << QString::fromLatin1(kInterface) << name;
    const QDBusMessage answer = connection_.call(message, QDBus::Block, kPropertyTimeoutMs);
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
    QDBusMessage message = QDBusMessage::createMethodCall(
        QLatin1String(kService), QLatin1String(kObjectPath), QLatin1String(kPropertiesInterface),
        QStringLiteral("Get"));
    message << QString::fromLatin1(kInterface) << QStringLiteral("link_type");
    const QDBusMessage answer = connection_.call(message, QDBus::Block, kQuietTimeoutMs);
    if (answer.type() != QDBusMessage::ReplyMessage || answer.arguments().isEmpty())
        return std::nullopt;
    bool ok = false;
    const int value = qvariant_cast<QDBusVariant>(answer.arguments().at(0)).variant().toInt(&ok);
    return ok ? std::optional<int>(value) : std::nullopt;
}

} // namespace usbdctl
