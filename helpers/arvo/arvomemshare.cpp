#include "arvomemshare.h"

#include <cstring>

#include <QDebug>
#include <QMutex>
#include <QMutexLocker>

namespace {

constexpr quint32 kAllocationGranule = 128;
constexpr quint32 kAllocAlignment = 1024;
constexpr quint32 kAllocFlags = 0;
constexpr quint32 kAllocHeapId = 27;
// Shrinking is only worth a copy when it frees more than this.
constexpr qint64 kReallocWasteThreshold = 512 * 1024;
constexpr int kSyncForDevice = 1;

QMutex &ionMutex()
{
    static QMutex mutex;
    return mutex;
}

ArvoDevicePtr &ionDevice()
{
    static ArvoDevicePtr device;
    return device;
}

} // namespace

ArvoDevicePtr ArvoMemShare::ion()
{
    QMutexLocker locker(&ionMutex());
    ArvoDevicePtr &device = ionDevice();
    if (device)
        return device;

    qInfo() << "Will init ION";
    quint32 openParam = 0;
    ArvoDevicePtr opened = arvo::deviceOpen(arvo::kIonDevicePath, &openParam);
    if (!opened)
        qFatal("Failed to open ION\n");
    quint32 startParam = 0;
    if (!opened->start(&startParam))
        qFatal("Failed to start ION\n");
    device = opened;
    qInfo() << "Finished";
    return device;
}

bool ArvoMemShare::ionAllocate(arvo_hal_mem_t *out, quint32 size)
{
    if (size == 0) {
        *out = 0;
        return false;
    }
    // Rounded up in 64 bits: a size within 127 of 4 GiB must not wrap to a tiny allocation.
    const quint64 rounded =
        (quint64(size) + kAllocationGranule - 1) / kAllocationGranule * kAllocationGranule;
    if (rounded > 0xFFFFFFFFu) {
        qWarning() << "arvo_hal_mem_alloc:" << ARVO_HAL_ERR_INVALID;
        *out = 0;
        return false;
    }
    const int result = arvo_hal_mem_alloc(ion()->handle(), out, quint32(rounded), kAllocAlignment,
                                          kAllocFlags, kAllocHeapId);
    if (result != 0) {
        qWarning() << "arvo_hal_mem_alloc:" << result;
        *out = 0;
        return false;
    }
    return true;
}

ArvoMemShare::ArvoMemShare(quint64 handle, quint32 offset, quint32 dataSize, QObject *parent)
    : QObject(parent),
      dataSize_(dataSize),
      offset_(offset)
{
    arvo_hal_mem_t imported = 0;
    const int result = arvo_hal_mem_import(ion()->handle(), &imported, handle);
    if (result != 0) {
        // Whatever the HAL left behind is not ours to use: the object stays without memory.
        qWarning() << "arvo_hal_mem_import:" << result << "handle:" << handle;
        return;
    }
    memory_ = imported;
}

ArvoMemShare::ArvoMemShare(quint32 size, bool inProcess, QObject *parent)
    : QObject(parent),
      dataSize_(size)
{
    if (inProcess) {
        heapSize_ = size;
        heapBlock_ = new uchar[size];
        virtualBase_ = heapBlock_;
        return;
    }
    ionAllocate(&memory_, size);
}

ArvoMemShare::~ArvoMemShare()
{
    if (memory_ != 0) {
        if (virtualBase_)
            arvo_hal_mem_unmap(memory_);
        arvo_hal_mem_free(memory_);
    } else {
        delete[] heapBlock_;
    }
}

quint64 ArvoMemShare::shareHandle()
{
    if (memory_ == 0)
        return 0;
    uint64_t handle = 0;
    const int result = arvo_hal_mem_share(memory_, &handle);
    if (result != 0)
        qWarning() << "arvo_hal_mem_share:" << result;
    return handle;
}

quint32 ArvoMemShare::allocatedSize()
{
    if (memory_ == 0)
        return heapSize_;
    uint32_t size = 0;
    const int result = arvo_hal_mem_get_size(memory_, &size);
    if (result != 0) {
        qWarning() << "arvo_hal_mem_get_size:" << result;
        return 0;
    }
    return size;
}

quint32 ArvoMemShare::dataSize()
{
    if (memory_ == 0 || dataSize_ != 0)
        return dataSize_;
    const quint32 allocated = allocatedSize();
    if (allocated < offset_) {
        qWarning() << "Too big offset";
        return 0;
    }
    return allocated - offset_;
}

void ArvoMemShare::map()
{
    if (virtualBase_ || memory_ == 0)
        return;
    uint8_t *base = nullptr;
    if (arvo_hal_mem_map(memory_, &base) != 0 || !base) {
        qCritical() << "Failed to map memory";
        virtualBase_ = nullptr;
        return;
    }
    virtualBase_ = base;
}

uchar *ArvoMemShare::data()
{
    if (!virtualBase_ && memory_ != 0)
        map();
    if (!virtualBase_)
        return nullptr;
    return virtualBase_ + offset_;
}

quint32 ArvoMemShare::phys()
{
    if (memory_ == 0)
        return 0;
    uint32_t address = 0;
    if (arvo_hal_mem_get_phys_addr(memory_, &address) != 0) {
        qCritical() << "Failed to get physical address";
        return 0;
    }
    return address + offset_;
}

void ArvoMemShare::sync()
{
    if (memory_ == 0)
        return;
    if (!virtualBase_)
        map();
    arvo_hal_mem_sync(memory_, kSyncForDevice);
}

void ArvoMemShare::setOffset(quint32 offset)
{
    const quint32 oldOffset = offset_;
    offset_ = offset;
    if (dataSize_ == 0)
        return;
    // Unsigned on purpose: moving the offset backwards wraps to a huge difference and is refused.
    const quint32 difference = offset - oldOffset;
    if (difference <= dataSize_)
        dataSize_ -= difference;
    else
        qCritical() << "Offset larger than size:" << offset << dataSize_;
}

void ArvoMemShare::setDataSize(quint32 size)
{
    quint32 limit = heapSize_;
    if (memory_ != 0) {
        uint32_t allocated = 0;
        const int result = arvo_hal_mem_get_size(memory_, &allocated);
        if (result != 0) {
            qWarning() << "arvo_hal_mem_get_size:" << result;
            allocated = 0;
        }
        limit = allocated;
    }
    if (size > limit) {
        qCritical() << "Size bigger then memory chunk:" << limit << size;
        return;
    }
    dataSize_ = size;
}

void ArvoMemShare::realloc()
{
    const quint32 size = dataSize();
    const uchar *source = data();
    if (!source) {
        qWarning() << "Failed to get virtual address";
        return;
    }

    if (memory_ != 0) {
        const qint64 waste = qint64(allocatedSize()) - qint64(size);
        if (waste <= kReallocWasteThreshold)
            return;
        sync();
        arvo_hal_mem_t fresh = 0;
        if (!ionAllocate(&fresh, size))
            return;
        // Map the new memory before giving up the old one: if it cannot be mapped, nothing is
        // copied and the object keeps the memory it had.
        uint8_t *target = nullptr;
        if (arvo_hal_mem_map(fresh, &target) != 0 || !target) {
            qCritical() << "Failed to map memory";
            arvo_hal_mem_free(fresh);
            return;
        }
        const arvo_hal_mem_t old = memory_;
        memcpy(target, source, size);
        memory_ = fresh;
        virtualBase_ = target;
        offset_ = 0;
        dataSize_ = size;
        arvo_hal_mem_unmap(old);
        arvo_hal_mem_free(old);
    } else {
        if (size == heapSize_)
            return;
        auto *block = new uchar[size];
        memcpy(block, source, size);
        delete[] heapBlock_;
        heapBlock_ = block;
        virtualBase_ = block;
        heapSize_ = size;
        dataSize_ = size;
        offset_ = 0;
    }
    qInfo() << "Realloc:" << size << "->" << allocatedSize();
}

void ArvoMemShare::release(quint64 *handleOut, void **heapOut)
{
    if (handleOut)
        *handleOut = shareHandle();
    if (heapOut)
        *heapOut = heapBlock_;
    memory_ = 0;
    virtualBase_ = nullptr;
    heapBlock_ = nullptr;
    heapSize_ = 0;
    dataSize_ = 0;
    offset_ = 0;
}
