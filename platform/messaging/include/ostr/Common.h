#pragma once

#include <QDBusConnection>

// Process-wide set-up of the platform messaging layer.
class Common {
public:
    // Connects to the session bus (useSessionBus true) or the system bus (false) and, when
    // claimServiceName is true, claims the service name "com.korvane.<application name>".
    // A bus that cannot be reached or a name that another process owns is reported in one
    // message naming the bus and the name, and ends the process with a non-zero status.
    static bool init(bool useSessionBus, bool claimServiceName);

    // The connection made by init(); not connected before init().
    static QDBusConnection connection();

    // "com.korvane." + the application name; the bus name of the service.
    static QString serviceName();
    // "/com/korvane/" + object name, the path under which DBusObject registers.
    static QString objectPath(const QString &objectName);
};
