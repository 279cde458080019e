#pragma once

#include <cstdint>

#include "conn.h"

// Most segments (data and padding pieces) a request may have, and most iovec entries per call.
constexpr int kUsbMaxSegments = 32;
// Most bytes handed to the endpoint in one system call.
constexpr quint32 kUsbMaxBytesPerCall = 0x800000;
// Smallest call the transport falls back to when the endpoint cannot take larger ones (ENOMEM).
constexpr quint32 kUsbMinBytesPerCall = 16384;
// The platform FunctionFS driver's endpoint request: send from a physical address, _IO('g', 6).
constexpr unsigned long kUsbPhysTransferIoctl = 0x6706;

// Argument of kUsbPhysTransferIoctl.
struct __attribute__((packed)) UsbPhysTransfer {
    uint32_t physicalAddress;
    uint32_t length;
};
static_assert(sizeof(UsbPhysTransfer) == 8, "UsbPhysTransfer is an 8-byte record");

// Sends requests on the USB link over the bulk IN endpoint, zero-copy: scatter-gather writev
// from the buffers' own memory, padding from one zero block, and single-entry calls with a
// physical address through kUsbPhysTransferIoctl.
class USBConn : public Conn {
    Q_OBJECT
public:
    USBConn(int endpointFd, bool physicalTransfers, QObject *parent);

    bool supportsLinkType(OstrTypes::E_LinkType type) override;
    bool start() override;
    bool stop() override;
    bool transfer(UsbDBufferList *request) override;

private:
    int endpointFd_;
    // Cleared for good when the endpoint driver turns out to lack the physical-address request.
    bool physicalTransfers_;
    // Most bytes per call; lowered for good when the endpoint cannot take a call of this size.
    quint64 callLimit_ = kUsbMaxBytesPerCall;
};
