#pragma once

#include <QtGlobal>

#include <cstddef>

// Read-only zero bytes that cost no memory however many: an anonymous private mapping that is
// never written has the kernel's shared zero page behind every page. Both transports send
// padding from such blocks, so a client's padding never turns into an allocation of its size.
class ZeroBlock {
public:
    explicit ZeroBlock(size_t length);
    ~ZeroBlock();
    ZeroBlock(const ZeroBlock &) = delete;
    ZeroBlock &operator=(const ZeroBlock &) = delete;

    // Null when the address space has no room for the block (or length is 0).
    const uchar *data() const { return data_; }
    size_t size() const { return length_; }

private:
    const uchar *data_ = nullptr;
    size_t length_ = 0;
};
