#include <arvomemshare.h>

#include "logging.h"
#include "usbdbuffer.h"

UsbDBufferArvoHandle::UsbDBufferArvoHandle(quint64 handle, quint32 offset, quint32 size,
                                           quint32 elementAlignment, quint32 elementPadding,
                                           bool usePhysicalAddress, quint16 sessionId,
                                           QObject *parent)
    : UsbDBuffer(parent),
      handle_(handle),
      offset_(offset),
      size_(size),
      elementAlignment_(elementAlignment),
      elementPadding_(elementPadding),
      usePhysicalAddress_(usePhysicalAddress),
      sessionId_(sessionId)
{
    logBufferCreated(offset, size, elementAlignment);
}

UsbDBufferArvoHandle::~UsbDBufferArvoHandle()
{
    delete memShare_;
}

bool UsbDBufferArvoHandle::map()
{
    auto *imported = new ArvoMemShare(handle_, 0, 0, nullptr);
    delete memShare_;
    memShare_ = imported;
    memShare_->map();

    // The import and the mapping log their own failures; a null address is how they show, and
    // nothing may be sent from memory that was not imported and mapped.
    if (!memShare_->data())
        return false;
    // The range to send must lie inside the allocation, or the transport would read past it.
    if (quint64(offset_) + size_ > memShare_->allocatedSize()) {
        qCDebug(lcUsbdBuffer) << "range outside the shared memory: offset" << offset_ << "size"
                              << size_ << "allocation" << memShare_->allocatedSize();
        return false;
    }
    return true;
}

const uchar *UsbDBufferArvoHandle::virtualAddress()
{
    return memShare_ ? memShare_->data() : nullptr;
}

quint32 UsbDBufferArvoHandle::physicalAddress()
{
    return memShare_ ? memShare_->phys() : 0;
}
