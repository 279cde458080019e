#include "usbconn.h"

#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/uio.h>

#include <cerrno>

#include <QDebug>
#include <QList>
#include <QLoggingCategory>

#include "blockingcalls.h"
#include "logging.h"
#include "usbdbuffer.h"
#include "usbdbufferlist.h"

namespace {

// One piece of a request: a buffer's data, or the padding after it.
struct Segment {
    const uchar *start;
    quint32 length;
    quint32 physicalAddress; // 0 = none
};

// Where the next byte to send lies: a segment and how much of it has gone out.
struct Position {
    int segment = 0;
    quint32 sent = 0;
};

// The zero bytes every padding entry points into: one read-only anonymous mapping of the
// largest call, made once and kept for the life of the process. Every page of it maps the kernel's shared zero page, so it costs
// no memory, and however much padding a request asks for, no entry of one call is longer than
// the call. Entries of one call may share its bytes; writev only reads them.
const uchar *zeroBlock()
{
    static const uchar *const block = [] {
        void *mapping = ::mmap(nullptr, kUsbMaxBytesPerCall, PROT_READ,
                               MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        return mapping == MAP_FAILED ? nullptr : static_cast<const uchar *>(mapping);
    }();
    return block;
}

// Why the request must end now although its last call succeeded or was merely interrupted: a
// client's interrupt, or the host went away. Logged once, when it ends the transfer.
bool transferEnded()
{
    if (transferthread::interrupted()) {
        qCWarning(lcUsbConn) << "transfer interrupted";
        return true;
    }
    if (!transferthread::usbInEnabled()) {
        qCWarning(lcUsbConn) << "transfer ended: the USB function is not enabled";
        return true;
    }
    return false;
}

// Moves a position on by count bytes, past every segment that is then complete.
void advance(const Segment *segments, int segmentCount, Position *position, quint64 count)
{
    while (count > 0 && position->segment < segmentCount) {
        const Segment &segment = segments[position->segment];
        const quint64 take = qMin<quint64>(count, segment.length - position->sent);
        position->sent += quint32(take);
        count -= take;
        if (position->sent == segment.length) {
            ++position->segment;
            position->sent = 0;
        }
    }
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

} // namespace

USBConn::USBConn(int endpointFd, bool physicalTransfers, QObject *parent)
    : Conn(parent), endpointFd_(endpointFd), physicalTransfers_(physicalTransfers)
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

    const QList<UsbDBuffer *> buffers = request->buffers();

    // Every buffer is mapped and checked before the first byte goes out, so a request that
    // cannot be sent whole leaves nothing half-sent on the wire.
    Segment segments[kUsbMaxSegments];
    int segmentCount = 0;
    quint64 total = 0;
    for (UsbDBuffer *buffer : buffers) {
        const quint32 padding = buffer ? buffer->elementPadding() : 0;
        const int needed = padding != 0 ? 2 : 1;
        if (buffer == nullptr || segmentCount + needed > kUsbMaxSegments || !buffer->map()
            || (buffer->size() != 0 && buffer->virtualAddress() == nullptr)) {
            qWarning() << "failed to map buffer";
            return false;
        }

        const quint32 physical = buffer->physicalAddress();
        Segment &data = segments[segmentCount++];
        data.start = buffer->virtualAddress() + buffer->offset();
        data.length = buffer->size();
        data.physicalAddress = physical != 0 ? physical + buffer->offset() : 0;
        total += data.length;

        if (padding != 0) {
            Segment &pad = segments[segmentCount++];
            pad.start = nullptr; // every entry of it starts at the zero block
            pad.length = padding;
            pad.physicalAddress = 0;
            total += padding;
        }
    }
    const uchar *zeros = zeroBlock();
    if (zeros == nullptr) {
        qCWarning(lcUsbConn) << "cannot map the zero block for padding";
        return false;
    }

    size_t maxEntries = 0;
    size_t virtEntries = 0;
    size_t virtBytes = 0;
    size_t physCalls = 0;
    size_t physBytes = 0;

    Position position;
    quint64 remaining = total;
    while (remaining != 0) {
        iovec entries[kUsbMaxSegments];
        quint32 entryPhysical[kUsbMaxSegments];
        int count = 0;
        quint64 budget = qMin<quint64>(remaining, callLimit_);
        quint64 callLength = 0;
        Position fill = position;
        while (budget != 0 && fill.segment < segmentCount) {
            const Segment &segment = segments[fill.segment];
            const quint32 length = quint32(qMin<quint64>(segment.length - fill.sent, budget));
            const uchar *start = segment.start ? segment.start + fill.sent : zeros;
            entries[count].iov_base = const_cast<uchar *>(start);
            entries[count].iov_len = length;
            entryPhysical[count] = segment.physicalAddress != 0
                                       ? segment.physicalAddress + fill.sent : 0;
            ++count;
            budget -= length;
            callLength += length;
            fill.sent += length;
            if (fill.sent == segment.length) {
                ++fill.segment;
                fill.sent = 0;
            }
        }

        const bool physicalCall = count == 1 && physicalTransfers_ && entryPhysical[0] != 0;
        auto &calls = transferthread::calls();
        calls.enter(BlockingCalls::kUsbInCall);
        // Read after entering: either the flag is seen here or the thread that sets it sees
        // this call and signals it.
        if (transferEnded()) {
            calls.leave();
            return false;
        }
        ssize_t written;
        if (physicalCall) {
            UsbPhysTransfer record;
            record.physicalAddress = entryPhysical[0];
            record.length = quint32(entries[0].iov_len);
            written = ::ioctl(endpointFd_, kUsbPhysTransferIoctl, &record);
        } else {
            maxEntries = qMax(maxEntries, size_t(count));
            virtEntries += size_t(count);
            written = ::writev(endpointFd_, entries, count);
        }
        const int error = errno;
        calls.leave();

        if (written < 0) {
            if (error == EINTR && !transferthread::interrupted() && transferthread::usbInEnabled())
                continue; // a signal meant for no transfer: the same bytes again
            if (physicalCall && error == ENOTTY) {
                // The endpoint driver has no physical-address request (a stock FunctionFS). It
                // wrote nothing, so the same bytes go out through writev from the mapping, and
                // the driver is not asked again. Found out here rather than by a probe at
                // start-up: the only probe is a real request, which before a host enables the
                // function would block, and afterwards would send bytes nobody asked for.
                qCWarning(lcUsbConn) << "ioctl() failed:" << error
                                     << "- sending by virtual address from now on";
                physicalTransfers_ = false;
                continue;
            }
            if (error == ENOMEM && callLength > kUsbMinBytesPerCall) {
                // The driver copies each call into one contiguous kernel buffer, and not every
                // controller gets one of this size: smaller calls, kept for later requests.
                callLimit_ = qMax<quint64>(kUsbMinBytesPerCall, callLength / 2);
                qCDebug(lcUsbConn) << (physicalCall ? "ioctl()" : "writev()") << "of" << callLength
                                   << "bytes failed with ENOMEM; calls of at most" << callLimit_
                                   << "bytes from now on";
                continue;
            }
            if (error == EINTR)
                transferEnded(); // says why
            qCWarning(lcUsbConn) << (physicalCall ? "ioctl() failed:" : "writev() failed:") << error;
            return false;
        }
        if (physicalCall) {
            physBytes += size_t(written);
            ++physCalls;
        } else {
            virtBytes += size_t(written);
        }
        // Even a complete call does not count once the transfer was ended meanwhile: an
        // interrupted call may report the part it took as if nothing happened.
        if (quint64(written) < callLength && transferEnded())
            return false;

        // A short write is continued at the first byte not taken. A call that takes nothing
        // (or claims more than it was given) would make that loop spin or run off the request.
        if (written == 0 || quint64(written) > callLength) {
            qCWarning(lcUsbConn) << "endpoint took" << written << "of" << callLength << "bytes";
            return false;
        }
        if (quint64(written) == callLength)
            position = fill;
        else
            advance(segments, segmentCount, &position, quint64(written));
        remaining -= quint64(written);
    }

    // qDebug's printf form formats before the category filter drops the line; on every small
    // request that formatting cost more than the rest of the transfer, so ask first.
    if (QLoggingCategory::defaultCategory()->isDebugEnabled()) {
        size_t virtValue;
        size_t physValue;
        const char *virtUnit;
        const char *physUnit;
        scaled(virtBytes, &virtValue, &virtUnit);
        scaled(physBytes, &physValue, &physUnit);
        qDebug("max_buffers: %zu, virt_buffers: %zu (%zu%s), phys_buffers: %zu (%zu%s)", maxEntries,
               virtEntries, virtValue, virtUnit, physCalls, physValue, physUnit);
    }
    return true;
}
