#pragma once

#include <QObject>

class UsbDataIn;

// The server of "/tmp/usbd-socket": reads binary send and interrupt requests, queues send
// requests as UsbDSocketBufferLists. process() runs the whole server on the socket thread.
class UsbDSocket : public QObject {
    Q_OBJECT
public:
    explicit UsbDSocket(UsbDataIn *queue);

public slots:
    void process();

private:
    UsbDataIn *queue_;
};
