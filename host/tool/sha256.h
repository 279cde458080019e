#pragma once

// SHA-256 of what usbd-host moved, printed so that a transfer can be checked byte-exact.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace usbdhost {

class Sha256 {
public:
    static constexpr size_t kDigestSize = 32;

    Sha256();
    void update(const void *data, size_t size);
    // The digest of everything updated so far; the object may not be updated afterwards.
    std::array<uint8_t, kDigestSize> finish();
    std::string finishHex();

private:
    void block(const uint8_t *data);

    uint32_t state_[8];
    uint8_t pending_[64];
    size_t pendingSize_ = 0;
    uint64_t totalBytes_ = 0;
};

} // namespace usbdhost
