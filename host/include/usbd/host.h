/* libusbd-host: the host end of the usbd USB link.
 *
 * Finds the device's vendor function on the bus, opens it, reads what the device sends from its
 * bulk IN endpoint and writes to its bulk OUT endpoint, where the device's open_file receives.
 *
 * The function is recognised by its shape alone: one interface of class 0xFF, subclass 0,
 * protocol 0 with four bulk endpoints, two OUT and two IN, whatever the device's vendor and
 * product ids. Endpoint addresses are never assumed (host controllers renumber them): the first
 * bulk IN endpoint in descriptor order is where the device sends, the first bulk OUT endpoint is
 * where it receives.
 *
 * ABI: a C interface over opaque objects, so that programs built against libusbd-host.so.0 keep
 * working with every later libusbd-host.so.0. No structure is shared with the caller and no
 * signature changes within a soname; later additions are new functions. Every exported symbol is
 * listed in the Debian package's symbols file, which the package build checks.
 *
 * Threads: a usbd_host is used by one thread at a time; usbd_host_interrupt() alone may be
 * called from any thread or from a signal handler. Separate usbd_host objects are independent.
 *
 * A program that reads for as long as it runs and follows the device through resets and
 * re-plugs:
 *
 *     usbd_host *host = usbd_host_new();
 *     usbd_host_set_wait(host, 1);            // open waits until the function is there
 *     usbd_host_set_idle_timeout(host, 0);    // a quiet device is not an error
 *     for (;;) {
 *         if (usbd_host_open(host) != USBD_HOST_OK)
 *             break;                          // interrupted, or no access: usbd_host_error()
 *         if (usbd_host_receive(host, 0, sink, state) != USBD_HOST_GONE)
 *             break;                          // anything but the device leaving ends it
 *     }
 *     usbd_host_free(host);
 */
#ifndef USBD_HOST_H
#define USBD_HOST_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define USBD_HOST_API __attribute__((visibility("default")))
#else
#define USBD_HOST_API
#endif

/* The version of the library this header belongs to. */
#define USBD_HOST_VERSION_MAJOR 0
#define USBD_HOST_VERSION_MINOR 1
/* The version of the library actually loaded, "MAJOR.MINOR.PATCH". */
USBD_HOST_API const char *usbd_host_version(void);

typedef enum usbd_host_status {
    USBD_HOST_OK = 0,
    USBD_HOST_NOT_FOUND = 1,     /* no device carries the function (or none at the chosen address) */
    USBD_HOST_AMBIGUOUS = 2,     /* several do, and none was chosen */
    USBD_HOST_ACCESS_DENIED = 3, /* the device node is not open to this user */
    USBD_HOST_BUSY = 4,          /* another program has claimed the interface */
    USBD_HOST_GONE = 5,          /* the device left the bus: unplugged, reset or re-enumerated */
    USBD_HOST_TIMEOUT = 6,       /* nothing moved for the idle time-out */
    USBD_HOST_INTERRUPTED = 7,   /* usbd_host_interrupt() was called */
    USBD_HOST_STOPPED = 8,       /* the caller's callback asked to stop */
    USBD_HOST_FAILED = 9         /* anything else; usbd_host_error() says what */
} usbd_host_status;

/* A short English name of a status ("not found", "gone", ...). */
USBD_HOST_API const char *usbd_host_status_name(usbd_host_status status);

/* ---- Options and the session ------------------------------------------------------------- */

typedef struct usbd_host usbd_host;

/* A session with default options and no device open; NULL only when memory ran out. */
USBD_HOST_API usbd_host *usbd_host_new(void);
/* Closes the device, if one is open, and frees the session. NULL is ignored. */
USBD_HOST_API void usbd_host_free(usbd_host *host);

/* Only the device at this bus number and address (as lsusb prints them); 0, 0 (the default)
 * for the one device that carries the function. */
USBD_HOST_API void usbd_host_select(usbd_host *host, uint8_t bus, uint8_t address);
/* Parses "BUS:ADDR" in decimal ("1:5", "001:005"; bus 1-255, address 1-127). 0 on success. */
USBD_HOST_API int usbd_host_parse_address(const char *text, uint8_t *bus, uint8_t *address);

/* Non-zero: listing and opening wait until the function appears instead of failing with
 * USBD_HOST_NOT_FOUND. Default 0. */
USBD_HOST_API void usbd_host_set_wait(usbd_host *host, int wait);
/* A stream ends with USBD_HOST_TIMEOUT once nothing moved for this long; 0 waits for ever.
 * Default 10000 ms. */
USBD_HOST_API void usbd_host_set_idle_timeout(usbd_host *host, unsigned milliseconds);
/* Bytes per bulk transfer (rounded down to whole packets, 16 KiB to 64 MiB) and how many
 * transfers are in flight at once (1 to 16). Default 1 MiB and 4. A transfer the kernel cannot
 * find memory for is retried at half the size, down to 16 KiB. */
USBD_HOST_API void usbd_host_set_transfers(usbd_host *host, size_t size, unsigned in_flight);

typedef void (*usbd_host_progress_fn)(uint64_t bytes, double seconds, void *user);
/* Called about ten times a second while a stream runs, with the bytes moved and the seconds
 * since it started. NULL (the default) for none. */
USBD_HOST_API void usbd_host_set_progress(usbd_host *host, usbd_host_progress_fn progress, void *user);

/* Makes the call in progress (or, if none is, the next call that waits or streams) end with
 * USBD_HOST_INTERRUPTED, keeping what already arrived. Async-signal-safe. */
USBD_HOST_API void usbd_host_interrupt(usbd_host *host);

/* What went wrong in the last call that did not return USBD_HOST_OK, as one English sentence;
 * "" after a success. Valid until the next call on this session. */
USBD_HOST_API const char *usbd_host_error(const usbd_host *host);

/* ---- Devices ----------------------------------------------------------------------------- */

typedef struct usbd_host_device usbd_host_device;

USBD_HOST_API uint8_t usbd_host_device_bus(const usbd_host_device *device);
USBD_HOST_API uint8_t usbd_host_device_address(const usbd_host_device *device);
USBD_HOST_API uint16_t usbd_host_device_vendor_id(const usbd_host_device *device);
USBD_HOST_API uint16_t usbd_host_device_product_id(const usbd_host_device *device);
/* The link speed as Linux names it: "full-speed", "high-speed", "super-speed", ... */
USBD_HOST_API const char *usbd_host_device_speed(const usbd_host_device *device);
USBD_HOST_API uint8_t usbd_host_device_configuration(const usbd_host_device *device);
/* The configuration's MaxPower in mA. */
USBD_HOST_API unsigned usbd_host_device_max_power(const usbd_host_device *device);
USBD_HOST_API uint8_t usbd_host_device_interface(const usbd_host_device *device);
USBD_HOST_API uint8_t usbd_host_device_alternate_setting(const usbd_host_device *device);
/* The function's endpoints in descriptor order: count (4), then each one's address. */
USBD_HOST_API unsigned usbd_host_device_endpoint_count(const usbd_host_device *device);
USBD_HOST_API uint8_t usbd_host_device_endpoint(const usbd_host_device *device, unsigned index);
/* The endpoint the device sends on (bulk IN) and the one it receives on (bulk OUT). */
USBD_HOST_API uint8_t usbd_host_device_in_endpoint(const usbd_host_device *device);
USBD_HOST_API uint8_t usbd_host_device_out_endpoint(const usbd_host_device *device);
/* wMaxPacketSize of one of the function's endpoints, by address; 0 for any other address. */
USBD_HOST_API unsigned usbd_host_device_max_packet(const usbd_host_device *device, uint8_t endpoint);

typedef enum usbd_host_string {
    USBD_HOST_MANUFACTURER = 0,
    USBD_HOST_PRODUCT = 1,
    USBD_HOST_SERIAL = 2,
    USBD_HOST_INTERFACE_NAME = 3
} usbd_host_string;

/* One of the device's strings; "" when it has none or it could not be read. */
USBD_HOST_API const char *usbd_host_device_string(const usbd_host_device *device, usbd_host_string which);
/* Why the strings could not be read (they need the device opened: without access, the message
 * says which udev rule would give it); "" when they were. */
USBD_HOST_API const char *usbd_host_device_strings_error(const usbd_host_device *device);

/* ---- Listing ----------------------------------------------------------------------------- */

typedef struct usbd_host_list usbd_host_list;

/* Every attached device that carries the function (or the selected one), with its strings
 * where the device may be opened. USBD_HOST_NOT_FOUND when there is none (after waiting, if
 * set), USBD_HOST_INTERRUPTED or USBD_HOST_FAILED; *list is then NULL. */
USBD_HOST_API usbd_host_status usbd_host_list_devices(usbd_host *host, usbd_host_list **list);
USBD_HOST_API size_t usbd_host_list_count(const usbd_host_list *list);
/* Valid until the list is freed. */
USBD_HOST_API const usbd_host_device *usbd_host_list_get(const usbd_host_list *list, size_t index);
USBD_HOST_API void usbd_host_list_free(usbd_host_list *list);

/* ---- The open device --------------------------------------------------------------------- */

/* Opens the one device carrying the function (or the selected one) and claims its interface,
 * closing whatever the session had open before: after USBD_HOST_GONE, opening again (with
 * waiting set) follows the device through a reset or a re-plug. USBD_HOST_NOT_FOUND,
 * USBD_HOST_AMBIGUOUS, USBD_HOST_ACCESS_DENIED, USBD_HOST_BUSY, USBD_HOST_INTERRUPTED or
 * USBD_HOST_FAILED otherwise. */
USBD_HOST_API usbd_host_status usbd_host_open(usbd_host *host);
/* The open device; NULL when none is. Valid until the session closes it. */
USBD_HOST_API const usbd_host_device *usbd_host_opened(const usbd_host *host);
/* Releases the interface (re-attaching a kernel driver detached for it) and closes the device.
 * Harmless when nothing is open. */
USBD_HOST_API void usbd_host_close(usbd_host *host);

/* Receives every byte the device sends, in order, and hands it to sink, which returns non-zero
 * to go on and 0 to stop (USBD_HOST_STOPPED). Ends with USBD_HOST_OK once limit bytes arrived
 * (limit 0: no limit), USBD_HOST_TIMEOUT after the idle time, USBD_HOST_GONE when the device
 * left, or the reason it broke off. Bytes still in flight are collected before it returns, so
 * none is lost between two calls. The device's transfers end in whole packets: the bytes of the
 * packet that crosses the limit beyond it are dropped (usbd_host_stream_discarded). */
typedef int (*usbd_host_sink_fn)(const uint8_t *data, size_t size, void *user);
USBD_HOST_API usbd_host_status usbd_host_receive(usbd_host *host, uint64_t limit, usbd_host_sink_fn sink,
                                                 void *user);

/* Sends to the device what source yields: it fills up to room bytes of buffer and returns how
 * many, 0 at the end, or a negative number to stop (USBD_HOST_STOPPED). sent (may be NULL) sees
 * each piece once the device has taken it. No zero-length packet follows the data: the device's
 * receive asks for an exact size, and an empty packet would end its next receive at once. */
typedef long (*usbd_host_source_fn)(uint8_t *buffer, size_t room, void *user);
typedef void (*usbd_host_sent_fn)(const uint8_t *data, size_t size, void *user);
USBD_HOST_API usbd_host_status usbd_host_send(usbd_host *host, usbd_host_source_fn source,
                                              usbd_host_sent_fn sent, void *user);

/* What the last usbd_host_receive or usbd_host_send moved: bytes handed to the sink or taken by
 * the device, the seconds from its start to the last byte, and bytes dropped past the limit. */
USBD_HOST_API uint64_t usbd_host_stream_bytes(const usbd_host *host);
USBD_HOST_API double usbd_host_stream_seconds(const usbd_host *host);
USBD_HOST_API uint64_t usbd_host_stream_discarded(const usbd_host *host);

#ifdef __cplusplus
}
#endif

#endif /* USBD_HOST_H */
