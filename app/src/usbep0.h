#pragma once

#include <atomic>

#include <QObject>

// Watches the FunctionFS control endpoint for function events and derives the USB link state
// and the host-granted charge-current limit from them. process() runs on the ep0 thread.
class UsbEp0 : public QObject {
    Q_OBJECT
public:
    UsbEp0(int ep0Descriptor, QObject *parent);

    int charge_current_max() const { return chargeCurrentMax_.load(std::memory_order_relaxed); }
    void setChargeCurrentMax(int value);

signals:
    void usb_linkChanged(bool);
    void charge_current_maxChanged(int);

public slots:
    void process();

private:
    // One accepted event: the link value, then the controller state and MaxPower.
    void handleEvent(quint8 type);

    int ep0_;
    bool link_ = false;
    std::atomic<int> chargeCurrentMax_{0};
};
