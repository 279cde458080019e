#pragma once

#include <QByteArray>
#include <QDBusMessage>
#include <QList>
#include <QObject>
#include <QVariantMap>

#include <ostr/OstrTypes.h>
#include <usbd/unique_fd.h>

#include "iosconnstatewatcher.h"
#include "transferthread.h"

class UsbEp0;
class UsbSpeedReader;
class UsbDataIn;
class UsbDSocket;

// The device core: sets up the FunctionFS function, builds the workers and their threads,
// derives the link type, and turns D-Bus send calls into queued transfer requests.
class UsbD : public QObject {
    Q_OBJECT
public:
    explicit UsbD(QObject *parent = nullptr);
    ~UsbD() override;

    UsbEp0 *ep0() const { return ep0Monitor_; }
    UsbDataIn *dataIn() const { return dataIn_; }

    OstrTypes::E_LinkType linkType() const;
    // The link type for the two inputs: MFi wins over the USB function, which wins over Wi-Fi.
    static OstrTypes::E_LinkType linkTypeFor(bool usbConnected, int iosState);
    bool usbSuperSpeed() const { return usbSuperSpeed_; }

    void send_data(const QByteArray &usb_data, uchar usb_data_len, const QDBusMessage &msg);
    void send_file(QList<QVariantMap> file_list, const QDBusMessage &msg);
    void send_shm_data(QList<QVariantMap> shm_handle_list, const QDBusMessage &msg);
    void open_file(const QString &file_name, int size);
    void close_file();

signals:
    void linkTypeChanged(OstrTypes::E_LinkType);
    void usbSuperSpeedChanged(bool superSpeed);

public slots:
    void usbLinkChanged(bool connected);
    void iosConnChanged(IOSConnStateWatcher::State state);
    void setUsbSuperSpeed(bool superSpeed);

private:
    // The function's endpoint files: control, bulk OUT (receives), bulk IN (sends). A file that
    // cannot be opened is handed on as a negative descriptor, whose calls then fail.
    usbd::UniqueFd ep0_;
    usbd::UniqueFd ep1_;
    usbd::UniqueFd ep3_;
    // How the control endpoint's monitor, the socket's interrupt and the USB transport reach
    // the transfer thread.
    TransferThread transferThread_;
    UsbEp0 *ep0Monitor_ = nullptr;
    IOSConnStateWatcher *iosWatcher_ = nullptr;
    UsbSpeedReader *speedReader_ = nullptr;
    UsbDataIn *dataIn_ = nullptr;
    bool usbConnected_ = false;
    bool usbSuperSpeed_ = false;
    int iosState_ = IOSConnStateWatcher::NotConnectedState;
    UsbDSocket *socket_ = nullptr;
};
