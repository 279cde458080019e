#pragma once

#include <pthread.h>

#include <chrono>

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

    // Ends the request in progress: it fails, whatever its transport call returns. Signals the
    // transfer thread (SIGUSR1) until it has left its blocking call, for at most about 200 ms.
    // Does nothing while no request is in progress, in particular before the worker starts.
    void interrupt();

    // Makes process() return once the request in flight (if any) is complete; the daemon never
    // calls it, but whoever tears the queue down must, before deleting it.
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
};

// Receives one file from the host over the bulk OUT endpoint, for the D-Bus method open_file.
class usbd_worker : public QObject {
    Q_OBJECT
public:
    usbd_worker(int descriptor, const QString &path, int size, QObject *parent);
    // timeMs > 0: the receive ends, and gives up the endpoint, that many milliseconds after
    // this construction, whether it is still waiting for its turn or reading.
    usbd_worker(int descriptor, const QString &path, int size, uint timeMs, QObject *parent);
    ~usbd_worker() override;

public slots:
    void process();

signals:
    void finished();

private:
    int descriptor_;
    QString path_;
    int size_;
    uint timeMs_ = 0;
    std::chrono::steady_clock::time_point asked_;
    uint64_t ticket_; // place among the receives on the endpoint
    bool processed_ = false;
};
