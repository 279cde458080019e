#pragma once

#include <optional>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QString>
#include <QVariantList>
#include <QVariantMap>

namespace usbdctl {

class Progress;

constexpr char kService[] = "com.korvane.usbd";
constexpr char kObjectPath[] = "/com/korvane/usbd";
constexpr char kInterface[] = "com.korvane.usbd";

// usbdctl's side of the daemon's D-Bus service. Every failing call prints one line on stderr
// that says what went wrong in the user's terms, and yields the matching exit status.
class DBusClient {
public:
    explicit DBusClient(bool sessionBus);

    // kExitOk, or the status of the failure (already reported).
    int connect();
    QDBusConnection &connection() { return connection_; }
    QString busName() const;

    // Calls a method of the service's interface and waits up to timeoutMs for the reply,
    // keeping progress (if any) up to date. On success *reply holds the reply when asked for.
    int call(const QString &method, const QVariantList &arguments, int timeoutMs,
             Progress *progress = nullptr, QDBusMessage *reply = nullptr,
             const QString &causes = QString());

    // All three properties in one round trip.
    int readProperties(QVariantMap *properties);
    int readProperty(const QString &name, QVariant *value);

    // The link type when it can be read quickly; used only to explain another failure.
    std::optional<int> linkTypeQuietly();

    // Prints the error the way the user needs to read it and returns the exit status.
    // causes: what, besides a link that is down, can make this request fail at the daemon.
    int report(const QString &errorName, const QString &message, int timeoutMs = 0,
               const QString &causes = QString());

    // The daemon answers every failure alike; the link type tells a link that is down from a
    // request that the daemon could not carry out. Returns kExitTransferFailed.
    int reportTransferFailed(const QString &causes);

private:
    bool session_;
    QDBusConnection connection_;
};

} // namespace usbdctl
