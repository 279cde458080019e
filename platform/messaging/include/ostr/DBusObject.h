#pragma once

#include <QObject>
#include <QString>

// Base of an object offered on the bus. The interface name is taken from the derived class's
// Q_CLASSINFO("D-Bus Interface", ...); its Q_SCRIPTABLE slots become methods and its
// properties read-only D-Bus properties.
class DBusObject : public QObject {
    Q_OBJECT
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
