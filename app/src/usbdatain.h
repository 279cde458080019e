#pragma once

#include <cstdint>

#include <QList>
#include <QObject>
#include <QString>

#include <ostr/OstrTypes.h>

#include "threadsafety.h"

class Conn;
class TransferThread;
class UsbDBufferList;

// The single FIFO of transfer requests and its worker loop. Producers on any thread call
// send_data(); the worker (process(), on the transfer thread) sends one request at a time over
// the transport that serves the current link type, completes it and deletes it.
class UsbDataIn : public QObject {
    Q_OBJECT
public:
    explicit UsbDataIn(const QList<Conn *> &connections);
    ~UsbDataIn() override;

    // The transfer thread's handle for the other threads; process() records its thread there.
    // Set before process() starts; without it, interrupt() does nothing.
    void setTransferThread(TransferThread *thread) { transferThread_ = thread; }

    // Sends one SIGUSR1 to the transfer thread, without a lock: a blocking transport call that
    // it is making returns early with EINTR, and the transport decides what that means for the
    // request. A signal that arrives while no call blocks changes nothing. Before the worker
    // has recorded its thread, nothing is signalled.
    void interrupt();

    // Makes process() return once the request in flight (if any) is complete; the daemon never
    // calls it, but whoever tears the queue down must, before deleting it, and must not call
    // interrupt() from then on.
    void quit();

public slots:
    void process();
    bool send_data(UsbDBufferList *buffers);
    void setLinkType(OstrTypes::E_LinkType linkType);

private:
    // Sends one request over the first transport that serves `linkType` and takes it, then
    // completes it (unlocked: a completion may write to a socket or the bus).
    void transfer(UsbDBufferList *request, OstrTypes::E_LinkType linkType);

    // Guards the queue, its wake-up flag and the link type; never held during a transfer or a
    // completion. The main and socket threads produce, the transfer thread consumes.
    usbd::PosixMutex lock_;
    usbd::PosixCondition condition_;
    quint8 linkType_ GUARDED_BY(lock_) = 0;
    QList<UsbDBufferList *> queue_ GUARDED_BY(lock_);
    bool pending_ GUARDED_BY(lock_) = false;
    bool quitting_ GUARDED_BY(lock_) = false;
    // Only the transfer thread uses the transports once process() runs.
    QList<Conn *> connections_;
    TransferThread *transferThread_ = nullptr;
};

// Receives one file from the host over the bulk OUT endpoint, for the D-Bus method open_file.
// Receives take the endpoint one at a time, in the order their workers were made, and each
// reads until its size has arrived or the endpoint ends the data (a read of 0 or an error);
// none gives up by time.
class usbd_worker : public QObject {
    Q_OBJECT
public:
    usbd_worker(int descriptor, const QString &path, int size, QObject *parent);
    ~usbd_worker() override;

public slots:
    void process();

signals:
    void finished();

private:
    int descriptor_;
    QString path_;
    int size_;
    uint64_t ticket_; // place among the receives on the endpoint
    bool processed_ = false;
};
