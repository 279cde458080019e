#pragma once

#include <cstdint>

// Reading and writing the little-endian fields of the request socket and the responses at any
// byte address. Built from single bytes, so that neither alignment nor the machine's own byte
// order matters; compilers turn each into one load or store where the machine allows it.
namespace usbd {

inline std::uint32_t loadLe32(const void *at)
{
    const auto *b = static_cast<const unsigned char *>(at);
    return std::uint32_t(b[0]) | std::uint32_t(b[1]) << 8 | std::uint32_t(b[2]) << 16
           | std::uint32_t(b[3]) << 24;
}

inline std::uint64_t loadLe64(const void *at)
{
    const auto *b = static_cast<const unsigned char *>(at);
    return std::uint64_t(loadLe32(b)) | std::uint64_t(loadLe32(b + 4)) << 32;
}

inline void storeLe32(void *at, std::uint32_t value)
{
    auto *b = static_cast<unsigned char *>(at);
    for (int i = 0; i < 4; ++i)
        b[i] = static_cast<unsigned char>(value >> (8 * i));
}

inline void storeLe64(void *at, std::uint64_t value)
{
    auto *b = static_cast<unsigned char *>(at);
    storeLe32(b, std::uint32_t(value));
    storeLe32(b + 4, std::uint32_t(value >> 32));
}

} // namespace usbd
