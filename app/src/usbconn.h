#pragma once

#include <cstdint>

#include <usbd/protocol.h>

#include "conn.h"

class TransferThread;
class UsbDBuffer;

// Most segments (data and padding pieces) a request may have, and most iovec entries per call.
constexpr int kUsbMaxSegments = int(usbd::kMaxSegments);
// Most bytes handed to the endpoint in one system call.
constexpr quint32 kUsbMaxBytesPerCall = 0x800000;
// Smallest call the transport falls back to when the endpoint cannot take larger ones (ENOMEM).
constexpr quint32 kUsbMinBytesPerCall = 16384;
// The platform FunctionFS driver's endpoint request: send from a physical address, _IO('g', 6).
constexpr unsigned long kUsbPhysTransferIoctl = usbd::kPhysTransferIoctl;

// Largest padding a buffer may ask for: the D-Bus interface carries it as a signed 32-bit count,
// so anything larger is a negative number that no client can mean.
constexpr quint32 kUsbMaxPadding = 0x7FFFFFFF;

// Argument of kUsbPhysTransferIoctl.
using UsbPhysTransfer = usbd::PhysTransferRecord;

// Sends requests on the USB link over the bulk IN endpoint, zero-copy: scatter-gather writev
// from the buffers' own memory, padding from one zero block, and single-entry calls with a
// physical address through kUsbPhysTransferIoctl.
class USBConn : public Conn {
    Q_OBJECT
public:
    USBConn(int endpointFd, bool physicalTransfers, QObject *parent);

    // Where the transfer thread learns whether the USB function can carry data; without it,
    // every call is made.
    void setTransferThread(TransferThread *thread) { transferThread_ = thread; }

    bool supportsLinkType(OstrTypes::E_LinkType type) override;
    bool start() override;
    bool stop() override;
    bool transfer(UsbDBufferList *request) override;

    // One piece of a request: a buffer's data, or the padding after it (start null: zeros).
    struct Segment {
        const uchar *start;
        quint32 length;
        quint32 physicalAddress; // 0 = none
    };
    // Counts for the summary line after a request.
    struct Counts {
        size_t maxEntries = 0;
        size_t virtEntries = 0;
        size_t virtBytes = 0;
        size_t physCalls = 0;
        size_t physBytes = 0;
    };

private:
    bool mapSegments(const QList<UsbDBuffer *> &buffers, Segment *segments, int *count,
                     quint64 *total);
    bool sendSegments(const Segment *segments, int count, quint64 total, Counts *counts);
    bool adaptToEndpoint(int error, bool physicalCall, quint64 callLength);

    int endpointFd_;
    TransferThread *transferThread_ = nullptr;
    // Cleared for good when the endpoint driver turns out to lack the physical-address request.
    bool physicalTransfers_;
    // Most bytes per call; lowered for good when the endpoint cannot take a call of this size.
    quint64 callLimit_ = kUsbMaxBytesPerCall;
};
