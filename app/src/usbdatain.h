#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include <QList>
#include <QObject>
#include <QString>

#include <ostr/OstrTypes.h>

class Conn;
class UsbDBufferList;

// The single FIFO of transfer requests and its worker loop. Producers on any thread call
// send_data(); the worker (process(), on the transfer thread) sends one request at a time over
// the transport that serves the current link type, completes it and deletes it.
class UsbDataIn : public QObject {
    Q_OBJECT
public:
    explicit UsbDataIn(const QList<Conn *> &connections);
    ~UsbDataIn() override;

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
    quint8 linkType_ = 0;
    QList<Conn *> connections_;
    QList<UsbDBufferList *> queue_;
    bool pending_ = false;
    bool quitting_ = false;
    pthread_mutex_t lock_;
    pthread_cond_t condition_;
    // The transfer thread, written once by that thread before it waits for work; set before
    // the flag is, so that whoever sees the flag sees the id.
    pthread_t transferThread_{};
    std::atomic<bool> transferThreadRecorded_{false};
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
