#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>

#include <cstddef>

#include <usbd/unique_fd.h>

class ArvoMemShare;

// The debug line every buffer writes when it is made: its offset, size and element alignment.
void logBufferCreated(quint32 offset, quint32 size, quint32 elementAlignment);

// One contiguous piece of data of a transfer request: size() bytes from
// virtualAddress() + offset(), followed by elementPadding() padding bytes.
// virtualAddress() and physicalAddress() are meaningful only after map() returned true.
class UsbDBuffer : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;

    virtual quint32 offset() = 0;
    virtual quint32 size() = 0;
    virtual quint32 elementAlignment() = 0;
    virtual quint32 elementPadding() = 0;
    virtual bool map() = 0;
    virtual const uchar *virtualAddress() = 0;
    virtual quint32 physicalAddress() = 0;
    virtual quint16 sessionId() = 0;
};

// Bytes held in the daemon's memory; shares the caller's QByteArray without copying it.
// map() refuses a range that reaches past the end of the array.
class UsbDBufferMem : public UsbDBuffer {
    Q_OBJECT
public:
    UsbDBufferMem(const QByteArray &data, quint32 offset, quint32 size, quint32 elementAlignment,
                  quint32 elementPadding, quint16 sessionId, QObject *parent);

    quint32 offset() override { return offset_; }
    quint32 size() override { return size_; }
    quint32 elementAlignment() override { return elementAlignment_; }
    quint32 elementPadding() override { return elementPadding_; }
    bool map() override;
    const uchar *virtualAddress() override;
    quint32 physicalAddress() override { return 0; }
    quint16 sessionId() override { return sessionId_; }

private:
    const QByteArray data_;
    quint32 offset_;
    quint32 size_;
    quint32 elementAlignment_;
    quint32 elementPadding_;
    quint16 sessionId_;
};

// A file, opened and mapped read-only by map(); owns its descriptor and mapping. map() refuses
// a range that reaches past the end of the file as it was mapped.
class UsbDBufferPath : public UsbDBuffer {
    Q_OBJECT
public:
    UsbDBufferPath(const QString &path, quint32 offset, quint32 size, quint32 elementAlignment,
                   quint32 elementPadding, quint16 sessionId, QObject *parent);
    ~UsbDBufferPath() override;

    quint32 offset() override { return offset_; }
    quint32 size() override { return size_; }
    quint32 elementAlignment() override { return elementAlignment_; }
    quint32 elementPadding() override { return elementPadding_; }
    bool map() override;
    const uchar *virtualAddress() override;
    quint32 physicalAddress() override { return 0; }
    quint16 sessionId() override { return sessionId_; }

    QString path() const { return path_; }

private:
    void unmapAndClose();

    QString path_;
    usbd::UniqueFd fd_;
    void *mapping_ = nullptr; // null before map(), MAP_FAILED after a failed mmap
    size_t mappingLength_ = 0;
    quint32 offset_;
    quint32 size_;
    quint32 elementAlignment_;
    quint32 elementPadding_;
    quint16 sessionId_;
};

// Platform shared memory named by its 64-bit share handle; imported and mapped by map().
class UsbDBufferArvoHandle : public UsbDBuffer {
    Q_OBJECT
public:
    UsbDBufferArvoHandle(quint64 handle, quint32 offset, quint32 size, quint32 elementAlignment,
                         quint32 elementPadding, bool usePhysicalAddress, quint16 sessionId,
                         QObject *parent);
    ~UsbDBufferArvoHandle() override;

    quint32 offset() override { return offset_; }
    quint32 size() override { return size_; }
    quint32 elementAlignment() override { return elementAlignment_; }
    quint32 elementPadding() override { return elementPadding_; }
    bool map() override;
    const uchar *virtualAddress() override;
    quint32 physicalAddress() override;
    quint16 sessionId() override { return sessionId_; }

    quint64 handle() const { return handle_; }
    bool usePhysicalAddress() const { return usePhysicalAddress_; }

private:
    quint64 handle_;
    ArvoMemShare *memShare_ = nullptr;
    quint32 offset_;
    quint32 size_;
    quint32 elementAlignment_;
    quint32 elementPadding_;
    bool usePhysicalAddress_;
    quint16 sessionId_;
};
