#pragma once

#include <cstdint>

#include "conn.h"

class UsbDBufferMem;
class UsbDBufferPath;
class UsbDBufferArvoHandle;
class UsbDBuffer;

constexpr int kMfiLinkId = 22351;
constexpr quint32 kMfiFrameHeaderSize = 32;
constexpr quint32 kMfiMaxFramePayload = 131040;
constexpr quint32 kMfiHeaderMarker = 0x000001FF;
constexpr int kMfiMaxRetries = 6;
constexpr unsigned long kMfiRetryDelayUs = 100000;
// Largest padding a buffer may ask for: the D-Bus interface carries it as a signed 32-bit count,
// and the library takes a frame's length as an int.
constexpr quint32 kMfiMaxPadding = 0x7FFFFFFF;

// Header before every memory frame handed to the MFi link library.
struct __attribute__((packed)) MfiFrameHeader {
    uint32_t marker;
    uint32_t total;
    uint32_t offset;
    uint32_t length;
    uint16_t sessionId;
    uint8_t reserved[14];
};
static_assert(sizeof(MfiFrameHeader) == 32, "MfiFrameHeader is 32 bytes");

// Record for a file the library reads itself; followed by pathLength bytes and a zero byte.
struct __attribute__((packed)) MfiFileRecord {
    uint32_t fileOffset;
    uint32_t total;
    uint32_t requestOffset;
    uint32_t size;
    uint32_t padding;
    uint16_t sessionId;
    uint16_t pathLength;
    char path[1];
};
static_assert(sizeof(MfiFileRecord) == 25, "MfiFileRecord is 25 bytes before the path");

// Record for shared memory the library reads itself.
struct __attribute__((packed)) MfiShmRecord {
    uint32_t offset;
    uint32_t total;
    uint32_t requestOffset;
    uint32_t size;
    uint32_t padding;
    uint16_t sessionId;
    uint64_t handle;
};
static_assert(sizeof(MfiShmRecord) == 30, "MfiShmRecord is 30 bytes");

// Sends requests on the iOS links (MFi and Wi-Fi) through the MFi link library: memory in
// framed chunks with retries, files and shared memory as records the library reads itself.
class IOSConn : public Conn {
    Q_OBJECT
public:
    explicit IOSConn(QObject *parent);

    bool supportsLinkType(OstrTypes::E_LinkType type) override;
    bool start() override;
    bool stop() override;
    bool transfer(UsbDBufferList *request) override;

private:
    bool transfer(UsbDBuffer *buffer, quint32 total, quint32 &requestOffset);
    bool transfer(UsbDBufferPath *buffer, quint32 total, quint32 &requestOffset);
    bool transfer(UsbDBufferArvoHandle *buffer, quint32 total, quint32 &requestOffset);
};
