#pragma once

#include <QObject>

#include <ostr/OstrTypes.h>

class UsbDBufferList;

// A transport: one way of getting a transfer request to the host. transfer() borrows the
// request, sends its buffers in order (data then padding) and returns true only when every
// byte went out; completing and deleting the request stays with the transfer worker.
class Conn : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;

    virtual bool supportsLinkType(OstrTypes::E_LinkType type) = 0;
    virtual bool start() = 0;
    virtual bool stop() = 0;
    virtual bool transfer(UsbDBufferList *request) = 0;
};
