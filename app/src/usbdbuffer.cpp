#include "usbdbuffer.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <limits>

#include <QDebug>

#include "logging.h"

namespace {

// The transports read offset..offset+size straight from the region, so a range reaching past
// it would read foreign memory (or fault). Computed in 64 bits: offset + size can exceed 4 GiB.
bool rangeWithin(quint32 offset, quint32 size, quint64 regionLength)
{
    return quint64(offset) + quint64(size) <= regionLength;
}

void logOutOfRange(const char *kind, quint32 offset, quint32 size, quint64 regionLength)
{
    qCDebug(lcUsbdBuffer) << kind << "range outside its region: offset:" << offset
                          << "size:" << size << "region:" << regionLength;
}

} // namespace

void logBufferCreated(quint32 offset, quint32 size, quint32 elementAlignment)
{
    qCDebug(lcUsbdBuffer) << "offset:" << offset << "size:" << size
                          << "alignment:" << elementAlignment;
}

UsbDBufferMem::UsbDBufferMem(const QByteArray &data, quint32 offset, quint32 size,
                             quint32 elementAlignment, quint32 elementPadding, quint16 sessionId,
                             QObject *parent)
    : UsbDBuffer(parent),
      data_(data),
      offset_(offset),
      size_(size),
      elementAlignment_(elementAlignment),
      elementPadding_(elementPadding),
      sessionId_(sessionId)
{
    logBufferCreated(offset_, size_, elementAlignment_);
}

bool UsbDBufferMem::map()
{
    if (!rangeWithin(offset_, size_, quint64(data_.size()))) {
        logOutOfRange("memory buffer", offset_, size_, quint64(data_.size()));
        return false;
    }
    return true;
}

const uchar *UsbDBufferMem::virtualAddress()
{
    // constData() never detaches, so the bytes stay shared with the front end's array.
    return reinterpret_cast<const uchar *>(data_.constData());
}

UsbDBufferPath::UsbDBufferPath(const QString &path, quint32 offset, quint32 size,
                               quint32 elementAlignment, quint32 elementPadding, quint16 sessionId,
                               QObject *parent)
    : UsbDBuffer(parent),
      path_(path),
      offset_(offset),
      size_(size),
      elementAlignment_(elementAlignment),
      elementPadding_(elementPadding),
      sessionId_(sessionId)
{
    logBufferCreated(offset_, size_, elementAlignment_);
}

UsbDBufferPath::~UsbDBufferPath()
{
    unmapAndClose();
}

void UsbDBufferPath::unmapAndClose()
{
    if (mapping_ != nullptr && mapping_ != MAP_FAILED)
        ::munmap(mapping_, mappingLength_);
    mapping_ = nullptr;
    mappingLength_ = 0;
    fd_.reset();
}

bool UsbDBufferPath::map()
{
    // A repeated map() starts over, so that nothing of the first one is left behind.
    unmapAndClose();

    const QByteArray encodedPath = path_.toUtf8();
    // O_NONBLOCK: opening a FIFO without a writer (or some device nodes) would otherwise block
    // the transfer thread, and every request behind it, for good. It changes nothing for the
    // regular files that are all this buffer may name.
    fd_.reset(::open(encodedPath.constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!fd_.valid()) {
        qWarning().noquote() << "file not found: " + path_;
        return false;
    }

    struct stat st;
    if (::fstat(fd_.get(), &st) < 0) {
        qWarning() << "stat() failed";
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        qCDebug(lcUsbdBuffer).noquote() << "not a regular file: " + path_;
        unmapAndClose();
        return false;
    }
    const quint64 fileSize = quint64(st.st_size);

    // The whole file from byte 0: offset and size are applied by the reader, and the range
    // check below is against the file's size at this moment. An empty file fails here
    // (zero-length mappings are refused) without a message.
    quint64 length = fileSize;
    if (length > std::numeric_limits<size_t>::max()) {
        // Larger than the address space (a file over 4 GiB on a 32-bit device): only the part
        // up to the end of the range is mapped. The range's bytes are where a whole mapping
        // would have them, so the reader sees what a 64-bit build sees.
        if (!rangeWithin(offset_, size_, fileSize)) {
            logOutOfRange("file buffer", offset_, size_, fileSize);
            return false;
        }
        length = std::max<quint64>(quint64(offset_) + size_, 1);
        if (length > std::numeric_limits<size_t>::max()) {
            qCDebug(lcUsbdBuffer) << "file too large to map:" << path_;
            return false;
        }
    }
    mappingLength_ = size_t(length);
    mapping_ = ::mmap(nullptr, mappingLength_, PROT_READ, MAP_SHARED, fd_.get(), 0);
    if (mapping_ == MAP_FAILED)
        return false;

    if (!rangeWithin(offset_, size_, fileSize)) {
        logOutOfRange("file buffer", offset_, size_, fileSize);
        return false;
    }
    return true;
}

const uchar *UsbDBufferPath::virtualAddress()
{
    if (mapping_ == MAP_FAILED)
        return nullptr;
    return static_cast<const uchar *>(mapping_);
}
