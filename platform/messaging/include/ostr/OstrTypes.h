#pragma once

#include <QMetaType>
#include <QObject>

// Types shared by the platform's services.
namespace OstrTypes {
Q_NAMESPACE

// How the device currently reaches a host.
enum E_LinkType : quint8 {
    LinkTypeNone = 0, // no link
    LinkTypeUsb = 1,  // the device's own USB function
    LinkTypeMfi = 2,  // an iOS device over MFi (USB)
    LinkTypeWifi = 3, // an iOS device over Wi-Fi
};
Q_ENUM_NS(E_LinkType)

// Registers the types of this namespace with Qt's meta-type system (idempotent).
void registerTypes();

} // namespace OstrTypes

Q_DECLARE_METATYPE(OstrTypes::E_LinkType)
