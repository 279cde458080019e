#pragma once

#include <functional>
#include <memory>
#include <optional>

#include <QDBusConnection>
#include <QDBusPendingCall>
#include <QString>
#include <QVariantMap>

#include "usbdproxy.h"

namespace usbdctl {

class Arguments;
class Progress;

// usbdctl's side of the daemon's D-Bus service. Its methods are called through the proxy that
// is generated from the interface file the daemon is tested against, so that a method or
// argument the daemon does not offer cannot build. Every failing call prints one line on stderr
// that says what went wrong in the user's terms, and yields the matching exit status.
class DBusClient {
public:
    // The bus the command's options name: the system bus, or the session bus with --session.
    explicit DBusClient(const Arguments &arguments);
    ~DBusClient();

    // kExitOk, or the status of the failure (already reported).
    int connect();
    QDBusConnection &connection() { return connection_; }
    QString busName() const;

    // The daemon's interface; its calls wait up to timeoutMs (connect() first).
    UsbdProxy &daemon(int timeoutMs);

    // Waits for the reply to a call of daemon(), keeping progress (if any) up to date.
    // causes: what, besides a link that is down, can make this request fail at the daemon.
    int finish(const QDBusPendingCall &call, int timeoutMs, Progress *progress = nullptr,
               const QString &causes = QString());

    // All three properties in one round trip.
    int readProperties(QVariantMap *properties);
    int readProperty(const QString &name, QVariant *value);

    // The link type when it can be read quickly; used only to explain another failure.
    std::optional<int> linkTypeQuietly();

    // Prints the error the way the user needs to read it and returns the exit status.
    int report(const QString &errorName, const QString &message, int timeoutMs = 0,
               const QString &causes = QString());

    // The daemon answers every failure alike; the link type tells a link that is down from a
    // request that the daemon could not carry out. Returns kExitTransferFailed.
    int reportTransferFailed(const QString &causes);

private:
    // A call of org.freedesktop.DBus.Properties on the daemon's object.
    QDBusMessage properties(const QString &method, const QVariantList &arguments, int timeoutMs);

    bool session_;
    QDBusConnection connection_;
    std::unique_ptr<UsbdProxy> daemon_;
};

// Connects to the bus the command's options name and runs body with the client. A connection
// that fails has been reported, and its status is returned instead.
int withDBusClient(const Arguments &arguments, const std::function<int(DBusClient &)> &body);

} // namespace usbdctl
