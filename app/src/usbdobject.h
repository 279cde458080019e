#pragma once

#include <QDBusMessage>
#include <QList>
#include <QVariantMap>

#include <ostr/DBusObject.h>
#include <ostr/OstrTypes.h>

class UsbD;

// The D-Bus adaptor of interface com.korvane.usbd: turns incoming calls into calls of pure
// virtual handlers and announces property changes through DBusObject.
class UsbdObject : public DBusObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.korvane.usbd")
    Q_PROPERTY(int charge_current_max READ charge_current_max)
    Q_PROPERTY(int link_type READ linkTypeValue)
    Q_PROPERTY(bool usb_super_speed READ usb_super_speed)
public:
    explicit UsbdObject(QObject *parent);

    virtual int charge_current_max() const = 0;
    virtual OstrTypes::E_LinkType link_type() const = 0;
    virtual bool usb_super_speed() const = 0;
    int linkTypeValue() const { return int(link_type()); }

signals:
    void charge_current_maxChanged(int);
    void link_typeChanged(OstrTypes::E_LinkType);
    void usb_super_speedChanged(bool);

public slots:
    Q_SCRIPTABLE void close_file(const QDBusMessage &msg);
    Q_SCRIPTABLE void open_file(const QString &file_name, int size, uint time_ms,
                                const QDBusMessage &msg);
    Q_SCRIPTABLE void send_data(const QByteArray &usb_data, uchar usb_data_len,
                                const QDBusMessage &msg);
    Q_SCRIPTABLE void send_file(const QList<QVariantMap> &file_list, const QDBusMessage &msg);
    Q_SCRIPTABLE void send_shm_data(const QList<QVariantMap> &shm_handle_list,
                                    const QDBusMessage &msg);

protected:
    virtual void handle_close_file(const QDBusMessage &msg) = 0;
    virtual void handle_open_file(const QString &file_name, int size, uint time_ms,
                                  const QDBusMessage &msg) = 0;
    virtual void handle_send_data(const QByteArray &usb_data, uchar usb_data_len,
                                  const QDBusMessage &msg) = 0;
    virtual void handle_send_file(QList<QVariantMap> file_list, const QDBusMessage &msg) = 0;
    virtual void handle_send_shm_data(QList<QVariantMap> shm_handle_list,
                                      const QDBusMessage &msg) = 0;
};

// Serves the adaptor from the device core.
class UsbdObjectImpl : public UsbdObject {
    Q_OBJECT
public:
    UsbdObjectImpl(UsbD *usbd, QObject *parent);

    int charge_current_max() const override;
    OstrTypes::E_LinkType link_type() const override;
    bool usb_super_speed() const override;

protected:
    void handle_close_file(const QDBusMessage &msg) override;
    void handle_open_file(const QString &file_name, int size, uint time_ms,
                          const QDBusMessage &msg) override;
    void handle_send_data(const QByteArray &usb_data, uchar usb_data_len,
                          const QDBusMessage &msg) override;
    void handle_send_file(QList<QVariantMap> file_list, const QDBusMessage &msg) override;
    void handle_send_shm_data(QList<QVariantMap> shm_handle_list, const QDBusMessage &msg) override;

private:
    UsbD *usbd_;
};
