#include "ostr/Bus.h"

#include "ostr/Common.h"

bool Bus::send(const QDBusMessage &message)
{
    // QDBusConnection::send may be called from any thread; the copy keeps the connection
    // alive for the duration of the call.
    return Common::connection().send(message);
}
