#include "blobs.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace usbdemu {

namespace {

// Descriptor types a function may carry (USB 2.0/3.x chapter 9 numbering).
constexpr uint8_t kDtInterface = 4;
constexpr uint8_t kDtEndpoint = 5;
constexpr uint8_t kDtOtg = 9;
constexpr uint8_t kDtInterfaceAssociation = 11;
constexpr uint8_t kDtSsEndpointComp = 0x30;
constexpr uint8_t kDtClassSpecific1 = 0x21; // HID or CCID class descriptor, by interface class

constexpr uint8_t kClassHid = 3;
constexpr uint8_t kClassCcid = 0x0b;

constexpr uint8_t kInterfaceSize = 9;
constexpr uint8_t kEndpointSize = 7;
constexpr uint8_t kEndpointAudioSize = 9;
constexpr uint8_t kSsEndpointCompSize = 6;
constexpr uint8_t kHidSize = 9;
constexpr uint8_t kCcidSize = 54;
constexpr uint8_t kOtgSize = 3;
constexpr uint8_t kInterfaceAssociationSize = 8;

// The kernel keeps endpoint 0 plus at most 30 function endpoints per speed set.
constexpr uint32_t kMaxEndpointsPlusOne = 31;

constexpr size_t kOsDescHeaderSize = 11;
constexpr size_t kExtCompatSize = 24;
constexpr size_t kExtPropHeaderSize = 10;

const char *const kSpeedNames[3] = {"full-speed", "high-speed", "super-speed"};

uint32_t le32(const uint8_t *p)
{
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

uint16_t le16(const uint8_t *p)
{
    return uint16_t(p[0] | p[1] << 8);
}

std::string format(const char *fmt, unsigned a, unsigned b = 0, unsigned c = 0)
{
    char text[160];
    snprintf(text, sizeof text, fmt, a, b, c);
    return text;
}

// State carried across the speed sets: the first set that has descriptors fixes the number of
// interfaces and endpoints and the endpoint addresses; every later set must repeat them.
struct SetWalker {
    FunctionLayout &layout;
    std::string &why;
    bool haveFirstSet = false;
    uint32_t interfaceCount = 0; // of the current set
    uint32_t endpointCount = 0;  // of the current set
    uint32_t firstInterfaceCount = 0;
    uint32_t firstEndpointCount = 0;
    int currentClass = -1;
    int speed = 0;

    int fail(const std::string &reason)
    {
        why = std::string(kSpeedNames[speed]) + " descriptors: " + reason;
        return -EINVAL;
    }

    void noteString(uint8_t index)
    {
        if (index > layout.stringsNeeded)
            layout.stringsNeeded = index;
    }

    int interface(const uint8_t *d)
    {
        const uint8_t number = d[2];
        if (number >= interfaceCount)
            interfaceCount = number + 1u;
        if (d[8])
            noteString(d[8]);
        currentClass = d[5];
        if (haveFirstSet)
            return 0;
        for (const Interface &known : layout.interfaces)
            if (known.number == number)
                return 0;
        Interface itf;
        itf.number = number;
        itf.cls = d[5];
        itf.subclass = d[6];
        itf.protocol = d[7];
        itf.stringIndex = d[8];
        layout.interfaces.push_back(itf);
        return 0;
    }

    int endpoint(const uint8_t *d)
    {
        const uint8_t address = d[2];
        if (!(address & 0x0f))
            return fail(format("endpoint address 0x%02x is endpoint 0", address));
        ++endpointCount;
        if (endpointCount >= kMaxEndpointsPlusOne)
            return fail(format("more than %u endpoints", kMaxEndpointsPlusOne - 1));
        const size_t index = endpointCount - 1;
        if (!haveFirstSet) {
            Endpoint ep;
            ep.address = address;
            ep.attributes = d[3];
            layout.endpoints.push_back(ep);
            if (!layout.interfaces.empty())
                ++layout.interfaces.back().endpointCount;
        } else if (index >= layout.endpoints.size() || layout.endpoints[index].address != address) {
            return fail(format("endpoint %u has address 0x%02x, not the one of the first set",
                               unsigned(index + 1), address));
        }
        layout.endpoints[index].maxPacket[speed] = le16(d + 4);
        return 0;
    }

    // One descriptor; returns its length or a negative errno.
    int single(const uint8_t *d, size_t len)
    {
        if (len < 2)
            return fail("descriptor shorter than 2 bytes");
        const uint8_t length = d[0];
        const uint8_t type = d[1];
        if (len < length)
            return fail(format("descriptor of type 0x%02x claims %u bytes, %u left", type, length,
                               unsigned(len)));
        auto badLength = [&] {
            return fail(format("descriptor of type 0x%02x has bLength %u", type, length));
        };
        switch (type) {
        case kDtInterface:
            if (length != kInterfaceSize)
                return badLength();
            if (int r = interface(d); r < 0)
                return r;
            break;
        case kDtEndpoint:
            if (length != kEndpointSize && length != kEndpointAudioSize)
                return badLength();
            if (int r = endpoint(d); r < 0)
                return r;
            break;
        case kDtClassSpecific1:
            if (currentClass == kClassHid) {
                if (length != kHidSize)
                    return badLength();
            } else if (currentClass == kClassCcid) {
                if (length != kCcidSize)
                    return badLength();
            } else {
                return fail(format("class descriptor 0x21 in an interface of class 0x%02x",
                                   unsigned(currentClass & 0xff)));
            }
            break;
        case kDtOtg:
            if (length != kOtgSize)
                return badLength();
            break;
        case kDtInterfaceAssociation:
            if (length != kInterfaceAssociationSize)
                return badLength();
            if (d[7])
                noteString(d[7]);
            break;
        case kDtSsEndpointComp:
            if (length != kSsEndpointCompSize)
                return badLength();
            break;
        default:
            // Device, configuration, string and qualifier descriptors belong to the gadget, and
            // the kernel implements no other type for functions.
            return fail(format("descriptor type 0x%02x is not allowed in a function", type));
        }
        return length;
    }

    // One speed set of `count` descriptors; returns the bytes it used or a negative errno.
    int set(uint32_t count, const uint8_t *data, size_t len)
    {
        interfaceCount = 0;
        endpointCount = 0;
        currentClass = -1;
        size_t used = 0;
        for (uint32_t n = 0; n < count; ++n) {
            const int r = single(data + used, len - used);
            if (r < 0)
                return r;
            used += size_t(r);
        }
        if (!haveFirstSet && (endpointCount || interfaceCount)) {
            haveFirstSet = true;
            firstEndpointCount = endpointCount;
            firstInterfaceCount = interfaceCount;
        } else if (haveFirstSet) {
            if (endpointCount != firstEndpointCount)
                return fail(format("%u endpoints where the first set has %u", endpointCount,
                                   firstEndpointCount));
            if (interfaceCount != firstInterfaceCount)
                return fail(format("%u interfaces where the first set has %u", interfaceCount,
                                   firstInterfaceCount));
        }
        return int(used);
    }
};

// MS OS descriptors: checked for structure only (header, feature sizes, property types), which
// is what decides whether the kernel takes the blob.
int parseOsDescs(uint32_t count, const uint8_t *data, size_t len, std::string &why)
{
    size_t used = 0;
    for (uint32_t n = 0; n < count; ++n) {
        const uint8_t *h = data + used;
        const size_t left = len - used;
        if (left < kOsDescHeaderSize || le32(h + 1) > left) {
            why = format("MS OS descriptor %u is truncated", n);
            return -EINVAL;
        }
        const uint16_t version = le16(h + 5);
        const uint16_t index = le16(h + 7);
        if (version != 0x100 && version != 0x1) {
            why = format("MS OS descriptor %u has version 0x%x", n, version);
            return -EINVAL;
        }
        size_t pos = kOsDescHeaderSize;
        if (index == 4) {
            const uint16_t features = le16(h + 9);
            if (features > 255) {
                why = format("MS OS descriptor %u: reserved byte not zero", n);
                return -EINVAL;
            }
            for (uint16_t f = 0; f < features; ++f) {
                if (left - pos < kExtCompatSize || h[pos + 1] != 1) {
                    why = format("MS OS descriptor %u: bad extended compat %u", n, f);
                    return -EINVAL;
                }
                for (size_t i = 18; i < kExtCompatSize; ++i)
                    if (h[pos + i]) {
                        why =
                            format("MS OS descriptor %u: extended compat %u reserved bytes", n, f);
                        return -EINVAL;
                    }
                pos += kExtCompatSize;
            }
        } else if (index == 5) {
            const uint16_t features = le16(h + 9);
            for (uint16_t f = 0; f < features; ++f) {
                if (left - pos < kExtPropHeaderSize) {
                    why = format("MS OS descriptor %u: extended property %u truncated", n, f);
                    return -EINVAL;
                }
                const uint8_t *p = h + pos;
                const uint32_t size = le32(p);
                const uint32_t type = le32(p + 4);
                const uint16_t nameLength = le16(p + 8);
                if (size > left - pos || size < kExtPropHeaderSize + 4u + nameLength || type < 1
                    || type > 7) {
                    why = format("MS OS descriptor %u: bad extended property %u", n, f);
                    return -EINVAL;
                }
                const uint32_t dataLength = le32(p + kExtPropHeaderSize + nameLength);
                if (size != kExtPropHeaderSize + 4u + nameLength + dataLength) {
                    why = format("MS OS descriptor %u: extended property %u size mismatch", n, f);
                    return -EINVAL;
                }
                pos += size;
            }
        } else {
            why = format("MS OS descriptor %u has wIndex %u", n, index);
            return -EINVAL;
        }
        used += pos;
    }
    return int(used);
}

} // namespace

const char *Endpoint::typeName() const
{
    static const char *const kNames[4] = {"control", "isochronous", "bulk", "interrupt"};
    return kNames[attributes & 3];
}

int parseDescriptors(const uint8_t *data, size_t len, FunctionLayout &layout, std::string &why)
{
    layout = FunctionLayout();
    if (len < kMinBlobLength) {
        why = format("%u bytes is shorter than a blob header", unsigned(len));
        return -EINVAL;
    }
    if (le32(data + 4) != len) {
        why = format("length field says %u, the write has %u bytes", le32(data + 4), unsigned(len));
        return -EINVAL;
    }
    size_t pos = 0;
    uint32_t flags = 0;
    switch (le32(data)) {
    case kDescriptorsMagic:
        flags = kHasFsDesc | kHasHsDesc;
        pos = 8;
        break;
    case kDescriptorsMagicV2:
        flags = le32(data + 8);
        if (flags & ~kKnownDescriptorFlags) {
            why = format("unknown flags 0x%x", flags & ~kKnownDescriptorFlags);
            return -ENOSYS;
        }
        pos = 12;
        break;
    default:
        why = format("bad magic %u", le32(data));
        return -EINVAL;
    }
    layout.flags = flags;

    auto take32 = [&](uint32_t &out) {
        if (len - pos < 4)
            return false;
        out = le32(data + pos);
        pos += 4;
        return true;
    };
    if (flags & kEventFd) {
        uint32_t fd = 0;
        if (!take32(fd)) {
            why = "truncated before the eventfd field";
            return -EINVAL;
        }
        layout.hasEventFd = true;
        layout.eventFd = int32_t(fd);
    }
    for (int i = 0; i < 3; ++i) {
        if ((flags & (1u << i)) && !take32(layout.counts[i])) {
            why = "truncated in the descriptor counts";
            return -EINVAL;
        }
    }
    if ((flags & kHasMsOsDesc) && !take32(layout.osDescCount)) {
        why = "truncated before the MS OS descriptor count";
        return -EINVAL;
    }

    const size_t rawStart = pos;
    SetWalker walker{layout, why};
    for (int i = 0; i < 3; ++i) {
        if (!layout.counts[i])
            continue;
        walker.speed = i;
        const int r = walker.set(layout.counts[i], data + pos, len - pos);
        if (r < 0)
            return r;
        pos += size_t(r);
    }
    if (layout.osDescCount) {
        const int r = parseOsDescs(layout.osDescCount, data + pos, len - pos, why);
        if (r < 0)
            return r;
        pos += size_t(r);
    }
    if (pos == rawStart) {
        why = "no descriptors";
        return -EINVAL;
    }
    if (pos != len) {
        why = format("%u bytes after the last descriptor", unsigned(len - pos));
        return -EINVAL;
    }
    return 0;
}

int parseStrings(const uint8_t *data, size_t len, FunctionLayout &layout, std::string &why)
{
    layout.languages.clear();
    if (len < kMinBlobLength) {
        why = format("%u bytes is shorter than a blob header", unsigned(len));
        return -EINVAL;
    }
    if (le32(data) != kStringsMagic) {
        why = format("bad magic %u", le32(data));
        return -EINVAL;
    }
    if (le32(data + 4) != len) {
        why = format("length field says %u, the write has %u bytes", le32(data + 4), unsigned(len));
        return -EINVAL;
    }
    const uint32_t strCount = le32(data + 8);
    const uint32_t langCount = le32(data + 12);
    if (!strCount != !langCount) {
        why = format("%u strings in %u languages", strCount, langCount);
        return -EINVAL;
    }
    if (strCount < layout.stringsNeeded) {
        why = format("%u strings, the descriptors refer to string %u", strCount,
                     layout.stringsNeeded);
        return -EINVAL;
    }
    // The kernel looks no further when the descriptors name no string.
    if (!layout.stringsNeeded)
        return 0;

    size_t pos = 16;
    for (uint32_t lang = 0; lang < langCount; ++lang) {
        if (len - pos < 3) {
            why = format("language %u is truncated", lang);
            layout.languages.clear();
            return -EINVAL;
        }
        FunctionLayout::Language language;
        language.id = le16(data + pos);
        pos += 2;
        for (uint32_t s = 0; s < strCount; ++s) {
            const char *start = reinterpret_cast<const char *>(data + pos);
            const size_t length = strnlen(start, len - pos);
            if (length == len - pos) {
                why = format("string %u of language 0x%04x has no terminating zero", s + 1,
                             language.id);
                layout.languages.clear();
                return -EINVAL;
            }
            if (s < layout.stringsNeeded)
                language.strings.emplace_back(start, length);
            pos += length + 1;
        }
        layout.languages.push_back(std::move(language));
    }
    if (pos != len) {
        why = format("%u bytes after the last string", unsigned(len - pos));
        layout.languages.clear();
        return -EINVAL;
    }
    return 0;
}

} // namespace usbdemu
