#include "usbdobject.h"

#include <QDBusMetaType>

#include "usbd.h"
#include "usbep0.h"

UsbdObject::UsbdObject(QObject *parent) : DBusObject(QStringLiteral("usbd"), parent)
{
    // The list methods carry aa{sv}; QtDBus must know the type before the first call arrives.
    qDBusRegisterMetaType<QList<QVariantMap>>();
    OstrTypes::registerTypes();

    connect(this, &UsbdObject::charge_current_maxChanged, this,
            [this] { notifyPropertyChanged("charge_current_max"); });
    connect(this, &UsbdObject::link_typeChanged, this,
            [this] { notifyPropertyChanged("link_type"); });
    connect(this, &UsbdObject::usb_super_speedChanged, this,
            [this] { notifyPropertyChanged("usb_super_speed"); });
}

void UsbdObject::close_file(const QDBusMessage &msg)
{
    handle_close_file(msg);
}

void UsbdObject::open_file(const QString &file_name, int size, uint time_ms,
                           const QDBusMessage &msg)
{
    handle_open_file(file_name, size, time_ms, msg);
}

void UsbdObject::send_data(const QByteArray &usb_data, uchar usb_data_len, const QDBusMessage &msg)
{
    handle_send_data(usb_data, usb_data_len, msg);
}

void UsbdObject::send_file(const QList<QVariantMap> &file_list, const QDBusMessage &msg)
{
    handle_send_file(file_list, msg);
}

void UsbdObject::send_shm_data(const QList<QVariantMap> &shm_handle_list, const QDBusMessage &msg)
{
    handle_send_shm_data(shm_handle_list, msg);
}

UsbdObjectImpl::UsbdObjectImpl(UsbD *usbd, QObject *parent) : UsbdObject(parent), usbd_(usbd)
{
    connect(usbd_, &UsbD::linkTypeChanged, this, &UsbdObject::link_typeChanged);
    connect(usbd_, &UsbD::usbSuperSpeedChanged, this, &UsbdObject::usb_super_speedChanged);
    connect(usbd_->ep0(), &UsbEp0::charge_current_maxChanged, this,
            &UsbdObject::charge_current_maxChanged);
}

int UsbdObjectImpl::charge_current_max() const
{
    return usbd_->ep0()->charge_current_max();
}

OstrTypes::E_LinkType UsbdObjectImpl::link_type() const
{
    return usbd_->linkType();
}

bool UsbdObjectImpl::usb_super_speed() const
{
    return usbd_->usbSuperSpeed();
}

void UsbdObjectImpl::handle_close_file(const QDBusMessage &)
{
    usbd_->close_file();
}

void UsbdObjectImpl::handle_open_file(const QString &file_name, int size, uint /*time_ms*/,
                                      const QDBusMessage &)
{
    // time_ms is part of the method's signature but not of the receive: a receive ends when
    // its bytes have arrived or the endpoint ends the data, never by time.
    usbd_->open_file(file_name, size);
}

void UsbdObjectImpl::handle_send_data(const QByteArray &usb_data, uchar usb_data_len,
                                      const QDBusMessage &msg)
{
    msg.setDelayedReply(true);
    usbd_->send_data(usb_data, usb_data_len, msg);
}

void UsbdObjectImpl::handle_send_file(QList<QVariantMap> file_list, const QDBusMessage &msg)
{
    msg.setDelayedReply(true);
    usbd_->send_file(file_list, msg);
}

void UsbdObjectImpl::handle_send_shm_data(QList<QVariantMap> shm_handle_list,
                                          const QDBusMessage &msg)
{
    msg.setDelayedReply(true);
    usbd_->send_shm_data(shm_handle_list, msg);
}
