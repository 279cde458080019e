#pragma once

#include <atomic>

#include <QObject>

class TransferThread;

// Which of ep0's function events change the link, and to what. The same type twice in a row
// says nothing new; SETUP, SUSPEND and RESUME change nothing (but a later repeat of the type
// before them counts again); the link starts down, so a first DISABLE is not news either.
// UNBIND counts as link up and BIND as link down, as the function's host sees it.
class Ep0EventFilter {
public:
    Ep0EventFilter();
    // The link value for an event of `type`, or -1 when the event is ignored.
    int accept(quint8 type);

private:
    quint8 lastType_;
};

// Watches the FunctionFS control endpoint for function events and derives the USB link state
// and the host-granted charge-current limit from them. process() runs on the ep0 thread.
class UsbEp0 : public QObject {
    Q_OBJECT
public:
    UsbEp0(int ep0Descriptor, QObject *parent);

    // Told on every accepted event whether the USB function can carry data; set before
    // process() starts.
    void setTransferThread(TransferThread *thread) { transferThread_ = thread; }

    int charge_current_max() const { return chargeCurrentMax_.load(std::memory_order_relaxed); }
    void setChargeCurrentMax(int value);

signals:
    void usb_linkChanged(bool);
    void charge_current_maxChanged(int);

public slots:
    void process();

private:
    // One accepted event: the link value, then the controller state and MaxPower.
    void handleEvent(quint8 type, bool link);

    int ep0_;
    TransferThread *transferThread_ = nullptr;
    bool link_ = false;
    std::atomic<int> chargeCurrentMax_{0};
};
