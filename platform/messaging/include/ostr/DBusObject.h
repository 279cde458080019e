#pragma once

#include <QObject>
#include <QString>

// Base of an object offered on the bus. The interface name is taken from the derived class's
// Q_CLASSINFO("D-Bus Interface", ...); its Q_SCRIPTABLE slots become methods and its (scriptable)
// properties D-Bus properties, nothing else.
class DBusObject : public QObject {
    Q_OBJECT
    // Every QObject has the property objectName, and the bus would offer it beside the object's
    // own properties, readable and writable. Declared again here, not scriptable, so that only
    // the scriptable properties of the derived interface are reachable.
    Q_PROPERTY(QString objectName READ objectName SCRIPTABLE false)
public:
    // Registers the object at Common::objectPath(name) on the connection of Common::init().
    DBusObject(const QString &name, QObject *parent);
    ~DBusObject() override;

    QString objectPath() const { return path_; }

    // Emits org.freedesktop.DBus.Properties.PropertiesChanged for the object's interface,
    // carrying the property's current value.
    void notifyPropertyChanged(const char *name);

private:
    QString path_;
};
