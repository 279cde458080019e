#include "ostr/DBusObject.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QMetaClassInfo>
#include <QMetaProperty>
#include <QVariantMap>
#include <QtDebug>

#include "ostr/Common.h"

namespace {

const char kInterfaceClassInfo[] = "D-Bus Interface";
const char kPropertiesInterface[] = "org.freedesktop.DBus.Properties";
const char kPropertiesChanged[] = "PropertiesChanged";

} // namespace

DBusObject::DBusObject(const QString &name, QObject *parent)
    : QObject(parent),
      path_(Common::objectPath(name))
{
    // Registering from the base constructor is safe: QtDBus stores only the pointer and reads
    // metaObject() when a call or an introspection arrives, by which time the derived class is
    // complete. Only signals would be bound here, and none are exported.
    if (!Common::connection().registerObject(path_, this,
                                             QDBusConnection::ExportScriptableSlots
                                                 | QDBusConnection::ExportScriptableProperties))
        qWarning("DBusObject: cannot register %s on the bus", qPrintable(path_));
}

DBusObject::~DBusObject()
{
    Common::connection().unregisterObject(path_);
}

void DBusObject::notifyPropertyChanged(const char *name)
{
    const QMetaObject *mo = metaObject();
    const int index = name ? mo->indexOfProperty(name) : -1;
    if (index < 0) {
        qWarning("DBusObject: %s has no property %s", qPrintable(path_), name ? name : "(null)");
        return;
    }
    const QMetaProperty property = mo->property(index);
    QVariant value = property.read(this);
    // Enumerations travel as their number; D-Bus has no marshaller for a C++ enum type.
    if (property.isEnumType())
        value = QVariant(value.toInt());

    const int infoIndex = mo->indexOfClassInfo(kInterfaceClassInfo);
    const QString interface =
        infoIndex >= 0 ? QString::fromLatin1(mo->classInfo(infoIndex).value()) : QString();

    QDBusMessage signal = QDBusMessage::createSignal(path_, QLatin1String(kPropertiesInterface),
                                                     QLatin1String(kPropertiesChanged));
    signal << interface << QVariantMap{{QString::fromLatin1(name), value}} << QStringList();
    if (!Common::connection().send(signal))
        qWarning("DBusObject: cannot announce %s of %s", name, qPrintable(path_));
}
