#include "usbconn.h"

#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstdlib>
#include <limits>

#include <QDebug>
#include <QList>

#include "logging.h"
#include "usbdbuffer.h"
#include "usbdbufferlist.h"

namespace {

// Padding blocks up to this size come from the heap; larger ones are mapped (see ZeroBlock).
constexpr quint64 kHeapZeroBlockMax = 64 * 1024;

// One piece of a request: a buffer's data, or the padding after it.
struct Segment {
    const uchar *start;
    quint64 paddingOffset; // padding only: where its bytes lie in the zero block
    quint32 length;
    quint32 physicalAddress; // 0 = none
    bool padding;
};

// Where the next byte to send lies: a segment and how much of it has gone out.
struct Position {
    int segment = 0;
    quint32 sent = 0;
};

// Zero bytes for a whole request's padding, one distinct range per padding segment. Large
// blocks are a read-only anonymous mapping: every page of it maps the kernel's shared zero page,
// so even gigabytes of padding cost neither memory nor time to clear.
class ZeroBlock {
public:
    ZeroBlock() = default;
    ZeroBlock(const ZeroBlock &) = delete;
    ZeroBlock &operator=(const ZeroBlock &) = delete;
    ~ZeroBlock()
    {
        if (mapped_)
            ::munmap(data_, size_);
        else
            std::free(data_);
    }

    bool allocate(quint64 size)
    {
        if (size == 0)
            return true;
        if (size > std::numeric_limits<size_t>::max())
            return false;
        size_ = size_t(size);
        if (size <= kHeapZeroBlockMax) {
            data_ = std::calloc(size_, 1);
            return data_ != nullptr;
        }
        void *block = ::mmap(nullptr, size_, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE,
                             -1, 0);
        if (block == MAP_FAILED)
            return false;
        data_ = block;
        mapped_ = true;
        return true;
    }

    const uchar *data() const { return static_cast<const uchar *>(data_); }

private:
    void *data_ = nullptr;
    size_t size_ = 0;
    bool mapped_ = false;
};

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
    quint64 paddingUsed = 0;
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
        data.paddingOffset = 0;
        data.length = buffer->size();
        data.physicalAddress = physical != 0 ? physical + buffer->offset() : 0;
        data.padding = false;
        total += data.length;

        if (padding != 0) {
            Segment &pad = segments[segmentCount++];
            pad.start = nullptr;
            pad.paddingOffset = paddingUsed;
            pad.length = padding;
            pad.physicalAddress = 0;
            pad.padding = true;
            paddingUsed += padding;
            total += padding;
        }
    }

    // Sized for the whole request so that no two padding segments share bytes.
    ZeroBlock zeroBlock;
    if (!zeroBlock.allocate(paddingUsed)) {
        qCWarning(lcUsbConn) << "cannot allocate" << paddingUsed << "bytes of padding";
        return false;
    }
    for (int i = 0; i < segmentCount; ++i) {
        if (segments[i].padding)
            segments[i].start = zeroBlock.data() + segments[i].paddingOffset;
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
        quint64 budget = qMin<quint64>(remaining, kUsbMaxBytesPerCall);
        quint64 callLength = 0;
        Position fill = position;
        while (budget != 0 && fill.segment < segmentCount) {
            const Segment &segment = segments[fill.segment];
            const quint32 length = quint32(qMin<quint64>(segment.length - fill.sent, budget));
            entries[count].iov_base = const_cast<uchar *>(segment.start + fill.sent);
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

        ssize_t written;
        if (count == 1 && physicalTransfers_ && entryPhysical[0] != 0) {
            UsbPhysTransfer record;
            record.physicalAddress = entryPhysical[0];
            record.length = quint32(entries[0].iov_len);
            written = ::ioctl(endpointFd_, kUsbPhysTransferIoctl, &record);
            if (written < 0) {
                const int error = errno;
                qCWarning(lcUsbConn) << "ioctl() failed:" << error;
                return false;
            }
            physBytes += size_t(written);
            ++physCalls;
        } else {
            maxEntries = qMax(maxEntries, size_t(count));
            virtEntries += size_t(count);
            written = ::writev(endpointFd_, entries, count);
            if (written < 0) {
                const int error = errno;
                qCWarning(lcUsbConn) << "writev() failed:" << error;
                return false;
            }
            virtBytes += size_t(written);
        }

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

    size_t virtValue;
    size_t physValue;
    const char *virtUnit;
    const char *physUnit;
    scaled(virtBytes, &virtValue, &virtUnit);
    scaled(physBytes, &physValue, &physUnit);
    qDebug("max_buffers: %zu, virt_buffers: %zu (%zu%s), phys_buffers: %zu (%zu%s)", maxEntries,
           virtEntries, virtValue, virtUnit, physCalls, physValue, physUnit);
    return true;
}
