#include "usbconn.h"

#include <sys/ioctl.h>
#include <sys/uio.h>

#include <cerrno>

#include <QDebug>
#include <QList>
#include <QLoggingCategory>

#include "logging.h"
#include "transferthread.h"
#include "usbdbuffer.h"
#include "usbdbufferlist.h"
#include "zeroblock.h"

namespace {

// Where the next byte to send lies: a segment and how much of it has gone out.
struct Position {
    int segment = 0;
    quint32 sent = 0;
};

// The zero bytes every padding entry points into, made once for the life of the process. No
// entry of one call is longer than the call, so a block of the largest call serves any padding;
// entries of one call may share its bytes, as writev only reads them.
const uchar *zeroBytes()
{
    static const ZeroBlock block(kUsbMaxBytesPerCall);
    return block.data();
}

// The summary line prints byte counts of 1 KiB and more in whole KiB.
void scaled(size_t bytes, size_t *value, const char **unit)
{
    if (bytes >= 1024) {
        *value = bytes / 1024;
        *unit = "kb";
    } else {
        *value = bytes;
        *unit = "b";
    }
}

// One system call's entries, filled from a position: each covers the rest of its segment, cut
// to the budget; filling stops when the budget is used up.
struct CallTable {
    iovec entries[kUsbMaxSegments];
    quint32 physical[kUsbMaxSegments]; // address of each entry's first byte, 0 = none
    int count = 0;
    quint64 length = 0;
    Position end; // where the next call starts if this one takes everything

    CallTable(const USBConn::Segment *segments, int segmentCount, Position from, quint64 budget,
              const uchar *zeros)
        : end(from)
    {
        while (budget != 0 && end.segment < segmentCount) {
            const USBConn::Segment &segment = segments[end.segment];
            const quint32 take = quint32(qMin<quint64>(segment.length - end.sent, budget));
            entries[count].iov_base =
                const_cast<uchar *>(segment.start ? segment.start + end.sent : zeros);
            entries[count].iov_len = take;
            physical[count] = segment.physicalAddress != 0 ? segment.physicalAddress + end.sent : 0;
            ++count;
            budget -= take;
            length += take;
            end.sent += take;
            if (end.sent == segment.length) {
                ++end.segment;
                end.sent = 0;
            }
        }
    }
};

// Moves a position on by count bytes, past every segment that is then complete.
void advance(const USBConn::Segment *segments, int segmentCount, Position *position, quint64 count)
{
    while (count > 0 && position->segment < segmentCount) {
        const USBConn::Segment &segment = segments[position->segment];
        const quint64 take = qMin<quint64>(count, segment.length - position->sent);
        position->sent += quint32(take);
        count -= take;
        if (position->sent == segment.length) {
            ++position->segment;
            position->sent = 0;
        }
    }
}

} // namespace

USBConn::USBConn(int endpointFd, bool physicalTransfers, QObject *parent)
    : Conn(parent),
      endpointFd_(endpointFd),
      physicalTransfers_(physicalTransfers)
{
}

bool USBConn::supportsLinkType(OstrTypes::E_LinkType type)
{
    return type == OstrTypes::LinkTypeUsb;
}

bool USBConn::start()
{
    return true;
}

bool USBConn::stop()
{
    return true;
}

bool USBConn::transfer(UsbDBufferList *request)
{
    qCDebug(lcUsbConn);

    Segment segments[kUsbMaxSegments];
    int segmentCount = 0;
    quint64 total = 0;
    if (!mapSegments(request->buffers(), segments, &segmentCount, &total)) {
        qWarning() << "failed to map buffer";
        return false;
    }
    Counts counts;
    if (!sendSegments(segments, segmentCount, total, &counts))
        return false;

    // qDebug's printf form formats before the category filter drops the line; on every small
    // request that formatting cost more than the rest of the transfer, so ask first.
    if (QLoggingCategory::defaultCategory()->isDebugEnabled()) {
        size_t virtValue;
        size_t physValue;
        const char *virtUnit;
        const char *physUnit;
        scaled(counts.virtBytes, &virtValue, &virtUnit);
        scaled(counts.physBytes, &physValue, &physUnit);
        qDebug("max_buffers: %zu, virt_buffers: %zu (%zu%s), phys_buffers: %zu (%zu%s)",
               counts.maxEntries, counts.virtEntries, virtValue, virtUnit, counts.physCalls,
               physValue, physUnit);
    }
    return true;
}

// Maps every buffer and lays out its data and padding, before the first byte goes out, so that
// a request that cannot be sent whole leaves nothing half-sent on the wire.
bool USBConn::mapSegments(const QList<UsbDBuffer *> &buffers, Segment *segments, int *count,
                          quint64 *total)
{
    for (UsbDBuffer *buffer : buffers) {
        if (buffer == nullptr)
            return false;
        const quint32 padding = buffer->elementPadding();
        if (*count + (padding != 0 ? 2 : 1) > kUsbMaxSegments)
            return false;
        if (padding > kUsbMaxPadding) {
            qCDebug(lcUsbConn) << "padding of" << padding << "bytes refused";
            return false;
        }
        if (!buffer->map())
            return false;
        // A buffer that says it mapped but has no address would send from address 0 + offset.
        if (buffer->size() != 0 && buffer->virtualAddress() == nullptr)
            return false;

        const quint32 physical = buffer->physicalAddress();
        Segment &data = segments[(*count)++];
        data.start = buffer->virtualAddress() + buffer->offset();
        data.length = buffer->size();
        data.physicalAddress = physical != 0 ? physical + buffer->offset() : 0;
        *total += data.length;

        if (padding != 0) {
            if (zeroBytes() == nullptr) {
                qCDebug(lcUsbConn) << "no address space for the zero block";
                return false;
            }
            segments[(*count)++] = Segment{nullptr, padding, 0};
            *total += padding;
        }
    }
    return true;
}

// What a stock FunctionFS or a controller without scatter-gather answers where the platform's
// driver would take the call; true when the same bytes can go again another way, from now on.
bool USBConn::adaptToEndpoint(int error, bool physicalCall, quint64 callLength)
{
    if (physicalCall && error == ENOTTY) {
        // The endpoint driver has no physical-address request (a stock FunctionFS): the bytes go
        // through writev from the mapping. Found out here rather than by a probe at start-up:
        // the only probe is a real request, which before a host enables the function would
        // block, and afterwards would send bytes nobody asked for.
        qCWarning(lcUsbConn) << "ioctl() failed:" << error;
        qCDebug(lcUsbConn) << "no physical-address request on this endpoint: sending by virtual"
                              " address from now on";
        physicalTransfers_ = false;
        return true;
    }
    if (error == ENOMEM && callLength > kUsbMinBytesPerCall) {
        // The driver copies each call into one contiguous kernel buffer, and not every
        // controller gets one of this size: smaller calls, kept for later requests.
        callLimit_ = qMax<quint64>(kUsbMinBytesPerCall, callLength / 2);
        qCDebug(lcUsbConn) << (physicalCall ? "ioctl()" : "writev()") << "of" << callLength
                           << "bytes failed with ENOMEM; calls of at most" << callLimit_
                           << "bytes from now on";
        return true;
    }
    return false;
}

// The send loop: calls of at most callLimit_ bytes and 32 entries; a single entry with a
// physical address goes to the driver's physical-address request, everything else to writev.
// A call that takes fewer bytes than offered (none at all included) is followed by one that
// starts at the first byte not taken.
bool USBConn::sendSegments(const Segment *segments, int count, quint64 total, Counts *counts)
{
    Position position;
    quint64 remaining = total;
    while (remaining != 0) {
        const CallTable call(segments, count, position, qMin<quint64>(remaining, callLimit_),
                             zeroBytes());
        const bool physicalCall = call.count == 1 && physicalTransfers_ && call.physical[0] != 0;
        const char *const failed = physicalCall ? "ioctl() failed:" : "writev() failed:";

        ssize_t written;
        int error;
        {
            const TransferThread::UsbInCall bracket(transferThread_);
            // A host that went away must not get bytes meant for it on the next host's
            // connection: the write fails now as the kernel fails one that is in progress when
            // the host goes.
            if (!bracket.allowed()) {
                qCDebug(lcUsbConn) << "the USB function is not enabled";
                qCWarning(lcUsbConn) << failed << ESHUTDOWN;
                return false;
            }
            if (physicalCall) {
                UsbPhysTransfer record;
                record.physicalAddress = call.physical[0];
                record.length = quint32(call.entries[0].iov_len);
                written = ::ioctl(endpointFd_, kUsbPhysTransferIoctl, &record);
            } else {
                counts->maxEntries = qMax(counts->maxEntries, size_t(call.count));
                counts->virtEntries += size_t(call.count);
                written = ::writev(endpointFd_, call.entries, call.count);
            }
            error = errno;
        }

        if (written < 0) {
            if (adaptToEndpoint(error, physicalCall, call.length))
                continue; // nothing was written: the same bytes again, in the new way
            qCWarning(lcUsbConn) << failed << error;
            return false;
        }
        if (quint64(written) > call.length) {
            // No endpoint takes more than it is offered; moving on by such a count would skip
            // bytes of the request or run past its end.
            qCDebug(lcUsbConn) << "endpoint reported" << written << "of" << call.length << "bytes";
            qCWarning(lcUsbConn) << failed << EIO;
            return false;
        }
        if (physicalCall) {
            counts->physBytes += size_t(written);
            ++counts->physCalls;
        } else {
            counts->virtBytes += size_t(written);
        }
        if (quint64(written) == call.length)
            position = call.end;
        else
            advance(segments, count, &position, quint64(written));
        remaining -= quint64(written);
    }
    return true;
}
