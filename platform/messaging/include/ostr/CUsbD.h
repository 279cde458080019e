#pragma once

#include <QString>

// Map keys of the usbd service's buffer descriptions (D-Bus aa{sv}). Clients and the service
// take the keys from here rather than spelling them.
class CUsbD {
public:
    static QString tagPath();               // "path"
    static QString tagOffset();             // "offset"
    static QString tagSize();               // "size"
    static QString tagElementAlignment();   // "element_alignment"
    static QString tagElementPadding();     // "element_padding"
    static QString tagSessionId();          // "session_id"
    static QString tagHandle();             // "handle"
    static QString tagUsePhysicalAddress(); // "use_physical_address"
};
