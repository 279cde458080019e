#include "zeroblock.h"

#include <sys/mman.h>

ZeroBlock::ZeroBlock(size_t length)
{
    if (length == 0)
        return;
    // MAP_NORESERVE: nothing is ever written, so nothing needs to be accounted for.
    void *mapping =
        ::mmap(nullptr, length, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (mapping == MAP_FAILED)
        return;
    data_ = static_cast<const uchar *>(mapping);
    length_ = length;
}

ZeroBlock::~ZeroBlock()
{
    if (data_ != nullptr)
        ::munmap(const_cast<uchar *>(data_), length_);
}
