#pragma once

#include <QObject>

#include "arvo.h"

// One piece of platform shared memory: imported from a share handle, allocated from ION, or
// (inProcess) a heap block with the same interface. Used by one thread at a time.
class ArvoMemShare : public QObject {
    Q_OBJECT
public:
    // The opened and started ION device, created on first call (fatal if it cannot be).
    static ArvoDevicePtr ion();
    static bool ionAllocate(arvo_hal_mem_t *out, quint32 size);

    ArvoMemShare(quint64 handle, quint32 offset, quint32 dataSize, QObject *parent);
    ArvoMemShare(quint32 size, bool inProcess, QObject *parent);
    ~ArvoMemShare() override;

    quint64 shareHandle();
    quint32 allocatedSize();
    quint32 dataSize();
    void map();
    uchar *data();
    quint32 phys();
    void sync();
    void setOffset(quint32 offset);
    void setDataSize(quint32 size);
    void realloc();
    void release(quint64 *handleOut, void **heapOut);

    quint32 offset() const { return offset_; }

private:
    arvo_hal_mem_t memory_ = 0;
    uchar *virtualBase_ = nullptr;
    uchar *heapBlock_ = nullptr;
    quint32 heapSize_ = 0;
    quint32 dataSize_ = 0;
    quint32 offset_ = 0;
};
