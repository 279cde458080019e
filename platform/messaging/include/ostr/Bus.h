#pragma once

#include <QDBusMessage>

// Sending on the connection set up by Common::init(). Safe to call from any thread.
class Bus {
public:
    static bool send(const QDBusMessage &message);
};
