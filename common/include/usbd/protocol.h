#pragma once

#include <cstddef>
#include <cstdint>

// What usbd and the processes around it must agree on, written down once: the request socket's
// byte layout, the limits a request must keep, the answers, the D-Bus names and the fixed paths.
// The daemon, the client library (which installs this header beside its own), usbdctl, the
// benchmarks and the emulator all take the values from here; the Python client's are checked
// against them by its tests. No Qt and no code, so that anything can include it.
namespace usbd {

// ---- fixed paths ----

// The local request socket.
constexpr char kSocketPath[] = "/tmp/usbd-socket";
// The FunctionFS instance of the daemon's function: control endpoint, bulk OUT 0x01 (host to
// device) and bulk IN 0x81 (device to host, where every send goes).
constexpr char kFfsEp0Path[] = "/dev/usb-ffs/bulk/ep0";
constexpr char kFfsEp1Path[] = "/dev/usb-ffs/bulk/ep1";
constexpr char kFfsEp3Path[] = "/dev/usb-ffs/bulk/ep3";
// The ION allocator that shared memory comes from.
constexpr char kIonDevicePath[] = "/dev/ion";

// ---- D-Bus ----

constexpr char kDBusService[] = "com.korvane.usbd";
constexpr char kDBusObjectPath[] = "/com/korvane/usbd";
constexpr char kDBusInterface[] = "com.korvane.usbd";

// ---- the platform's FunctionFS endpoint request ----

// Send from a physical address: _IO('g', 6), number 6 of the FunctionFS ioctl type 'g'. An
// extension of the platform's FunctionFS driver (a stock kernel answers ENOTTY); the emulator
// models it. Its argument points to a PhysTransferRecord, little-endian.
constexpr unsigned long kPhysTransferIoctl = 0x6706;
struct __attribute__((packed)) PhysTransferRecord {
    std::uint32_t physicalAddress; // of the first byte to send
    std::uint32_t length;          // bytes to send from there
};
static_assert(sizeof(PhysTransferRecord) == 8, "the physical-address record is 8 bytes");

// ---- what a request may hold ----

// The daemon hands one request to the USB endpoint in at most this many segments: one for the
// data of each piece (a D-Bus map, or a socket memory or handle entry) and one more for its
// padding when that is not 0, so 32 pieces without padding or 16 with. It finds a longer request
// out only when it comes to send it, and fails it like a broken link; clients refuse one first.
constexpr std::size_t kMaxSegments = 32;

// The segments one piece takes.
constexpr std::size_t segmentsOf(std::uint32_t elementPadding)
{
    return elementPadding ? 2 : 1;
}

// The error text of every failed D-Bus send, whatever the cause (org.freedesktop.DBus.Error.Failed).
constexpr char kFailedToSendText[] = "Failed to send buffer";

// ---- the request socket ----
// All integers little-endian (see little_endian.h). The daemon takes each read as one whole
// request, so a client writes each request in one write.
//
//   header   u32 kind, u32 requestId
//   entries  from offset 8, kSocketEntrySize bytes each, until the first whose type word is 0
//   data     memory entries name their bytes by an offset counted from the start of the request

// Every request must arrive whole in one read of at most this many bytes.
constexpr std::size_t kSocketMaxRequestSize = 4096;

constexpr std::size_t kSocketHeaderSize = 8;
constexpr std::size_t kSocketKindAt = 0;
constexpr std::size_t kSocketRequestIdAt = 4;

constexpr std::uint32_t kSocketKindSend = 1;
constexpr std::uint32_t kSocketKindInterrupt = 2; // any other kind is ignored

constexpr std::size_t kSocketEntrySize = 28;
constexpr std::size_t kSocketEntryTypeAt = 0;
constexpr std::size_t kSocketEntrySizeAt = 4;
// Memory entry: where its data starts in the request. Handle entry: offset in the shared buffer.
constexpr std::size_t kSocketEntryOffsetAt = 8;
constexpr std::size_t kSocketEntryAlignmentAt = 12;
constexpr std::size_t kSocketEntryPaddingAt = 16; // zero bytes sent after the data
constexpr std::size_t kSocketEntryHandleAt = 20;  // u64, handle entries only
// The end entry is recognised by its type word alone; the rest of it need not be present.
constexpr std::size_t kSocketEndEntrySize = 4;

constexpr std::uint32_t kSocketEntryEnd = 0;
constexpr std::uint32_t kSocketEntryMemory = 1;
constexpr std::uint32_t kSocketEntryHandle = 2; // any other type is skipped

// The most entries one request can hold (without memory data): 145.
constexpr std::size_t kSocketMaxEntries =
    (kSocketMaxRequestSize - kSocketHeaderSize - kSocketEndEntrySize) / kSocketEntrySize;

// The answer to a send request, once its transfer has ended: u32 requestId, i32 status.
// Interrupt requests and bad requests get none.
constexpr std::size_t kSocketResponseSize = 8;
constexpr std::size_t kSocketResponseIdAt = 0;
constexpr std::size_t kSocketResponseStatusAt = 4;
constexpr std::int32_t kSocketStatusSent = 0;
constexpr std::int32_t kSocketStatusFailed = -1;

} // namespace usbd
