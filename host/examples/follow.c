/* follow: writes everything a usbd device sends to stdout, for as long as it runs, and follows
 * the device through resets and re-plugs. An example of a host program built on libusbd-host:
 *
 *     cc -o follow follow.c $(pkg-config --cflags --libs usbd-host)
 *     follow [--once] [BUS:ADDR] > data.bin
 *
 * Each time the device is opened, and each time it leaves, a line on stderr says so, with the
 * bytes received from it. --once fails at once when no device carries the function, and ends
 * when the device leaves instead of waiting for it to come back. Ctrl-C ends it.
 */
#include <signal.h>
#include <stdio.h>
#include <string.h>

#include <usbd/host.h>

static usbd_host *host;

static void on_signal(int sig)
{
    (void)sig;
    usbd_host_interrupt(host); /* the receive in progress returns, with what arrived kept */
}

static int write_out(const uint8_t *data, size_t size, void *user)
{
    (void)user;
    return fwrite(data, 1, size, stdout) == size; /* 0 stops the receive */
}

int main(int argc, char **argv)
{
    int once = 0;
    uint8_t bus = 0, address = 0;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--once") == 0) {
            once = 1;
        } else if (usbd_host_parse_address(argv[i], &bus, &address) != 0) {
            fprintf(stderr, "usage: follow [--once] [BUS:ADDR]\n");
            return 2;
        }
    }

    host = usbd_host_new();
    if (!host)
        return 1;
    usbd_host_select(host, bus, address);
    usbd_host_set_wait(host, !once);      /* opening waits for the device to (re)appear */
    usbd_host_set_idle_timeout(host, 0);  /* a device with nothing to send is not an error */
    signal(SIGINT, on_signal);
    signal(SIGTERM, on_signal);

    usbd_host_status status;
    for (;;) {
        status = usbd_host_open(host);
        if (status != USBD_HOST_OK)
            break;
        const usbd_host_device *device = usbd_host_opened(host);
        fprintf(stderr, "follow: reading from %03u:%03u %04x:%04x (%s)\n", usbd_host_device_bus(device),
                usbd_host_device_address(device), usbd_host_device_vendor_id(device),
                usbd_host_device_product_id(device), usbd_host_device_speed(device));
        status = usbd_host_receive(host, 0, write_out, NULL);
        fflush(stdout);
        fprintf(stderr, "follow: %llu bytes, then %s\n", (unsigned long long)usbd_host_stream_bytes(host),
                usbd_host_status_name(status));
        if (status != USBD_HOST_GONE || once)
            break;
    }

    const int ended_well = status == USBD_HOST_INTERRUPTED || (once && status == USBD_HOST_GONE);
    if (!ended_well)
        fprintf(stderr, "follow: %s\n", usbd_host_error(host));
    usbd_host_free(host);
    return ended_well ? 0 : 1;
}
