/* chaos_host: the host end of the kernel chaos test (tests/kernel/chaos.py), on libusbd-host.
 *
 *     chaos_host DIR FEED_SIZE
 *
 * Reads the device's bulk IN for as long as it runs and writes each connection's stream to a
 * file of its own, DIR/conn-NNNN.bin. A connection is one life of the device on the bus as this
 * host sees it: it starts when the host opens a newly enumerated device and ends when the device
 * leaves (unbound, pulled, its controller unloaded) or this host resets it. Closing and opening
 * the same device again ("reopen") changes nothing on the bus, so the stream goes on in the same
 * file.
 *
 * Commands, one per line on stdin (each answered by events): "stop MS" stops reading for MS
 * milliseconds (the device's writes then block), "reopen" closes and opens the device again,
 * "reset" closes it and resets it (USBDEVFS_RESET: the device is disabled and configured again),
 * "demand N" says how many receives the device has waiting (the host feeds them over bulk OUT),
 * "quit" (or the end of stdin) ends the run.
 *
 * Events, one per line on stdout, times in seconds of CLOCK_MONOTONIC (the clock every program
 * of the test reads): "open conn=N t=T session=new|same speed=S", "first conn=N t=T",
 * "end conn=N t=T status=S bytes=B", "stop-begin t=T", "stop-end t=T", "reopen-begin t=T",
 * "reopen-end t=T", "reset-begin t=T", "reset-end t=T rc=R", "feed-start feed=F conn=N",
 * "feed-done feed=F conn=N t=T", "feed-abandoned feed=F taken=B", "error what=TEXT" (the
 * rest of the line).
 *
 * Feeds: every receive the device asks for has the same size, and the device reads each in one
 * call, so a feed goes to whichever receive reads next and never straddles two. A feed is sent
 * with a short idle time-out (no receive may be reading yet); what the device took stays taken
 * and the rest goes in the next attempt on the same connection. A feed cut by the end of a
 * connection is abandoned: the device's read failed with it.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <linux/usbdevice_fs.h>

#include <usbd/host.h>

/* The same layout as chaos_check.py's feed: header, then blocks of (key, index). */
static const uint8_t kFeedMagic[8] = {0xa7, 'F', 'E', 'E', 'D', '!', 0xc3, 0x5a};
enum { kFeedHeaderSize = 24 };
static const uint32_t kFeedKey = 0xFEEDF00Du;
/* While a receive may not be reading yet, a feed waits this long for the device to take it. */
static const unsigned kFeedIdleMs = 300;
/* How often a waiting feed gets a turn while bulk IN is read. */
static const int kFeedTickMs = 500;

enum command { kNone, kStop, kReopen, kReset, kQuit };

static struct {
    pthread_mutex_t lock;
    enum command command;
    unsigned stopMs;
    unsigned demand;
    int receiving; /* the main thread is in usbd_host_receive */
    int feedDue;
} control = {PTHREAD_MUTEX_INITIALIZER, kNone, 0, 0, 0, 0};

static usbd_host *host;
static const char *directory;
static size_t feedSize;

static struct {
    unsigned index;
    FILE *file;
    uint64_t bytes;
} connection;

static struct {
    int active;
    unsigned number;
    unsigned next;
    size_t offered;
    size_t taken;
    uint8_t *data;
} feed;

static double now(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

static void event(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    flockfile(stdout);
    vprintf(format, args);
    putchar('\n');
    fflush(stdout);
    funlockfile(stdout);
    va_end(args);
}

static uint32_t crc32(const uint8_t *data, size_t size)
{
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 0; i < size; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

static void put32(uint8_t *at, uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        at[i] = (uint8_t)(value >> (8 * i));
}

static void makeFeed(unsigned number)
{
    uint8_t *body = feed.data + kFeedHeaderSize;
    const size_t bodySize = feedSize - kFeedHeaderSize;
    const uint32_t key = number ^ kFeedKey;
    for (size_t i = 0; i < bodySize; ++i) {
        const size_t block = i / 8, within = i % 8;
        body[i] =
            within < 4 ? (uint8_t)(key >> (8 * within)) : (uint8_t)(block >> (8 * (within - 4)));
    }
    memcpy(feed.data, kFeedMagic, sizeof kFeedMagic);
    put32(feed.data + 8, number);
    put32(feed.data + 12, (uint32_t)feedSize);
    put32(feed.data + 16, crc32(body, bodySize));
    put32(feed.data + 20, crc32(feed.data, 20));
}

static enum command takeCommand(unsigned *stopMs)
{
    pthread_mutex_lock(&control.lock);
    const enum command command = control.command;
    if (command != kQuit)
        control.command = kNone;
    *stopMs = control.stopMs;
    pthread_mutex_unlock(&control.lock);
    return command;
}

static int quitting(void)
{
    pthread_mutex_lock(&control.lock);
    const int quit = control.command == kQuit;
    pthread_mutex_unlock(&control.lock);
    return quit;
}

/* Commands come in on stdin; each interrupts the receive in progress so that the main thread
 * takes it. While receives wait for data, a tick gives the feed a turn now and then. */
static void *controlThread(void *unused)
{
    (void)unused;
    char line[128];
    size_t used = 0;
    for (;;) {
        struct pollfd in = {STDIN_FILENO, POLLIN, 0};
        const int ready = poll(&in, 1, kFeedTickMs);
        if (ready == 0) {
            pthread_mutex_lock(&control.lock);
            const int due = control.demand > 0 && control.receiving;
            if (due)
                control.feedDue = 1;
            pthread_mutex_unlock(&control.lock);
            if (due)
                usbd_host_interrupt(host);
            continue;
        }
        if (ready < 0 && errno == EINTR)
            continue;
        const ssize_t got =
            ready < 0 ? -1 : read(STDIN_FILENO, line + used, sizeof line - 1 - used);
        if (got <= 0) {
            pthread_mutex_lock(&control.lock);
            control.command = kQuit;
            pthread_mutex_unlock(&control.lock);
            usbd_host_interrupt(host);
            return NULL;
        }
        used += (size_t)got;
        line[used] = '\0';
        char *end;
        while ((end = strchr(line, '\n')) != NULL) {
            *end = '\0';
            unsigned value = 0;
            pthread_mutex_lock(&control.lock);
            if (sscanf(line, "stop %u", &value) == 1) {
                control.command = kStop;
                control.stopMs = value;
            } else if (strcmp(line, "reopen") == 0) {
                control.command = kReopen;
            } else if (strcmp(line, "reset") == 0) {
                control.command = kReset;
            } else if (sscanf(line, "demand %u", &value) == 1) {
                control.demand = value;
                control.feedDue = value > 0;
            } else if (strcmp(line, "quit") == 0) {
                control.command = kQuit;
            }
            const int wake = control.command != kNone || control.feedDue;
            pthread_mutex_unlock(&control.lock);
            if (wake)
                usbd_host_interrupt(host);
            used -= (size_t)(end + 1 - line);
            memmove(line, end + 1, used + 1);
        }
        if (used == sizeof line - 1)
            used = 0; /* a line too long for any command */
    }
}

static int sink(const uint8_t *data, size_t size, void *unused)
{
    (void)unused;
    if (connection.bytes == 0 && size > 0)
        event("first conn=%u t=%.6f", connection.index, now());
    connection.bytes += size;
    return fwrite(data, 1, size, connection.file) == size;
}

static void startConnection(void)
{
    char path[4096];
    ++connection.index;
    snprintf(path, sizeof path, "%s/conn-%04u.bin", directory, connection.index);
    connection.file = fopen(path, "wb");
    if (!connection.file) {
        event("error what=cannot-create-%s", path);
        exit(1);
    }
    connection.bytes = 0;
    if (feed.active)
        event("feed-abandoned feed=%u taken=%zu", feed.number, feed.taken);
    feed.active = 0;
}

static void endConnection(const char *status, double at)
{
    fclose(connection.file);
    connection.file = NULL;
    event("end conn=%u t=%.6f status=%s bytes=%llu", connection.index, at, status,
          (unsigned long long)connection.bytes);
}

static long feedSource(uint8_t *buffer, size_t room, void *unused)
{
    (void)unused;
    size_t count = feedSize - feed.offered;
    if (count > room)
        count = room;
    memcpy(buffer, feed.data + feed.offered, count);
    feed.offered += count;
    return (long)count;
}

static void feedSent(const uint8_t *data, size_t size, void *unused)
{
    (void)data;
    (void)unused;
    feed.taken += size;
}

static usbd_host_status feedOnce(void)
{
    pthread_mutex_lock(&control.lock);
    const int wanted = control.demand > 0;
    control.feedDue = 0;
    pthread_mutex_unlock(&control.lock);
    if (!wanted && !feed.active)
        return USBD_HOST_OK;
    if (!feed.active) {
        feed.active = 1;
        feed.number = feed.next++;
        feed.taken = 0;
        makeFeed(feed.number);
        event("feed-start feed=%u conn=%u", feed.number, connection.index);
    }
    feed.offered = feed.taken;
    usbd_host_set_idle_timeout(host, kFeedIdleMs);
    const usbd_host_status status = usbd_host_send(host, feedSource, feedSent, NULL);
    usbd_host_set_idle_timeout(host, 0);
    if (feed.taken == feedSize) {
        feed.active = 0;
        event("feed-done feed=%u conn=%u t=%.6f", feed.number, connection.index, now());
    }
    return status;
}

/* Resets the device as a host's driver would after an error: the device sees a bus reset
 * (its function disabled) and is configured again at the same address. */
static int resetDevice(unsigned bus, unsigned address)
{
    char path[64];
    snprintf(path, sizeof path, "/dev/bus/usb/%03u/%03u", bus, address);
    const int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0)
        return -errno;
    const int rc = ioctl(fd, USBDEVFS_RESET, 0) < 0 ? -errno : 0;
    close(fd);
    return rc;
}

static void nap(unsigned ms)
{
    const double until = now() + ms / 1000.0;
    while (!quitting() && now() < until)
        usleep(20000);
}

int main(int argc, char **argv)
{
    if (argc != 3 || atol(argv[2]) <= kFeedHeaderSize) {
        fprintf(stderr, "usage: chaos_host DIR FEED_SIZE\n");
        return 2;
    }
    directory = argv[1];
    feedSize = (size_t)atol(argv[2]);
    feed.data = malloc(feedSize);
    host = usbd_host_new();
    if (!host || !feed.data)
        return 1;
    usbd_host_set_wait(host, 1);
    usbd_host_set_idle_timeout(host, 0);
    pthread_t thread;
    pthread_create(&thread, NULL, controlThread, NULL);
    event("ready t=%.6f", now());

    int newSession = 1;
    int reopening = 0;
    for (;;) {
        const usbd_host_status opened = usbd_host_open(host);
        if (quitting())
            break;
        if (opened != USBD_HOST_OK) {
            if (opened != USBD_HOST_INTERRUPTED)
                event("error what=open-%s", usbd_host_status_name(opened));
            /* A feed tick or a command while no device was there: the command waits for one. */
            pthread_mutex_lock(&control.lock);
            control.feedDue = 0;
            pthread_mutex_unlock(&control.lock);
            nap(100);
            continue;
        }
        const usbd_host_device *device = usbd_host_opened(host);
        if (newSession) {
            startConnection();
            event("open conn=%u t=%.6f session=new speed=%s", connection.index, now(),
                  usbd_host_device_speed(device));
        } else {
            event("open conn=%u t=%.6f session=same speed=%s", connection.index, now(),
                  usbd_host_device_speed(device));
        }
        if (reopening)
            event("reopen-end t=%.6f", now());
        newSession = 0;
        reopening = 0;

        for (;;) {
            pthread_mutex_lock(&control.lock);
            control.receiving = 1;
            pthread_mutex_unlock(&control.lock);
            usbd_host_status status = usbd_host_receive(host, 0, sink, NULL);
            pthread_mutex_lock(&control.lock);
            control.receiving = 0;
            const int feedDue = control.feedDue;
            pthread_mutex_unlock(&control.lock);
            fflush(connection.file);
            if (status == USBD_HOST_INTERRUPTED) {
                unsigned stopMs = 0;
                const enum command command = takeCommand(&stopMs);
                if (command == kQuit) {
                    endConnection("quit", now());
                    usbd_host_free(host);
                    return 0;
                }
                if (command == kStop) {
                    event("stop-begin t=%.6f", now());
                    nap(stopMs);
                    event("stop-end t=%.6f", now());
                    continue;
                }
                if (command == kReopen) {
                    event("reopen-begin t=%.6f", now());
                    usbd_host_close(host);
                    reopening = 1;
                    break;
                }
                if (command == kReset) {
                    const double begin = now();
                    event("reset-begin t=%.6f", begin);
                    /* Taken before the close, which ends the device object; a reset keeps them. */
                    const unsigned bus = usbd_host_device_bus(device);
                    const unsigned address = usbd_host_device_address(device);
                    usbd_host_close(host);
                    const int rc = resetDevice(bus, address);
                    event("reset-end t=%.6f rc=%d", now(), rc);
                    endConnection("reset", begin);
                    newSession = 1;
                    break;
                }
                if (!feedDue)
                    continue;
                status = feedOnce();
                if (status == USBD_HOST_OK || status == USBD_HOST_TIMEOUT
                    || status == USBD_HOST_INTERRUPTED) {
                    /* A command that came during the feed interrupted the feed instead: the
                     * receive it goes back to must end at once for it. */
                    pthread_mutex_lock(&control.lock);
                    const int pending = control.command != kNone;
                    pthread_mutex_unlock(&control.lock);
                    if (pending)
                        usbd_host_interrupt(host);
                    continue;
                }
            }
            /* The device left (or the link broke): this connection is over. */
            endConnection(usbd_host_status_name(status), now());
            if (status != USBD_HOST_GONE)
                event("error what=%s", usbd_host_error(host));
            usbd_host_close(host);
            newSession = 1;
            break;
        }
    }
    if (connection.file)
        endConnection("quit", now());
    usbd_host_free(host);
    return 0;
}
