#pragma once

#include <QObject>

#include "iosconnstatewatcher.h"

// Decides whether the USB link runs at super speed, from the device controller's
// "current_speed", whenever the USB function link or an MFi link comes up.
class UsbSpeedReader : public QObject {
    Q_OBJECT
public:
    explicit UsbSpeedReader(QObject *parent);

    void updateUsbSpeed();
    void setSuperSpeed(bool value);

    // Whether the controller's "current_speed" text names super speed: the first speed name the
    // text begins with decides (super speed plus begins with "super-speed" too).
    static bool namesSuperSpeed(const char *text, size_t length);

signals:
    void superSpeedChanged(bool);

public slots:
    void onIosConnStateChanged(IOSConnStateWatcher::State state);
    void onUsbLinkChanged(bool status);

private:
    bool superSpeed_ = false;
};
