// usbd-host: the host end of usbd's USB function, for the people who read from the device.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <usbd/host.h>
#include <usbd/unique_fd.h>

#include "options.h"
#include "sha256.h"

using namespace usbdhost;
using usbd::UniqueFd;

namespace {

struct HostDeleter {
    void operator()(usbd_host *host) const { usbd_host_free(host); }
};
using HostPtr = std::unique_ptr<usbd_host, HostDeleter>;

struct ListDeleter {
    void operator()(usbd_host_list *list) const { usbd_host_list_free(list); }
};
using ListPtr = std::unique_ptr<usbd_host_list, ListDeleter>;

// The one session, reachable from the signal handler.
usbd_host *session = nullptr;

void onStopSignal(int)
{
    if (session)
        usbd_host_interrupt(session);
}

// SIGINT and SIGTERM end the transfer in progress cleanly: the loop notices the flag, takes
// back what is in flight, releases the interface and prints the summary. The handler resets
// itself, so a second Ctrl-C ends the program at once should anything hang.
void installSignalHandlers()
{
    struct sigaction action {};
    action.sa_handler = onStopSignal;
    action.sa_flags = SA_RESETHAND;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    // A closed pipe on stdout is then a failed write, which ends the transfer like any other.
    signal(SIGPIPE, SIG_IGN);
}

int fail(int code, const std::string &message)
{
    std::fprintf(stderr, "usbd-host: %s\n", message.c_str());
    return code;
}

// Device strings go to a terminal: control characters become '?', so that a device cannot
// move the cursor or change colours.
std::string printable(const std::string &text)
{
    std::string out = text;
    for (char &c : out) {
        if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) >= 0x7F)
            c = '?';
    }
    return out;
}

// A string the device gave, quoted, or "(none)".
std::string shown(const std::string &text)
{
    return text.empty() ? std::string("(none)") : "\"" + printable(text) + "\"";
}

void printDevice(const usbd_host_device *device)
{
    std::printf("%03u:%03u %04x:%04x %s\n", unsigned(usbd_host_device_bus(device)), unsigned(usbd_host_device_address(device)),
                usbd_host_device_vendor_id(device), usbd_host_device_product_id(device), usbd_host_device_speed(device));
    const std::string stringsError = usbd_host_device_strings_error(device);
    if (!stringsError.empty())
        std::printf("  strings: %s\n", printable(stringsError).c_str());
    std::printf("  manufacturer: %s\n", shown(usbd_host_device_string(device, USBD_HOST_MANUFACTURER)).c_str());
    std::printf("  product: %s\n", shown(usbd_host_device_string(device, USBD_HOST_PRODUCT)).c_str());
    std::printf("  serial: %s\n", shown(usbd_host_device_string(device, USBD_HOST_SERIAL)).c_str());
    std::printf("  configuration: %u, MaxPower %u mA\n", unsigned(usbd_host_device_configuration(device)),
                usbd_host_device_max_power(device));
    std::printf("  interface: %u, alternate setting %u, class ff/00/00, name %s\n",
                unsigned(usbd_host_device_interface(device)), unsigned(usbd_host_device_alternate_setting(device)),
                shown(usbd_host_device_string(device, USBD_HOST_INTERFACE_NAME)).c_str());
    std::string endpoints;
    for (unsigned i = 0; i < usbd_host_device_endpoint_count(device); ++i) {
        const uint8_t address = usbd_host_device_endpoint(device, i);
        char text[32];
        std::snprintf(text, sizeof(text), "%s%s 0x%02x", endpoints.empty() ? "" : ", ", (address & 0x80) ? "IN" : "OUT",
                      address);
        endpoints += text;
    }
    std::printf("  endpoints: %s\n", endpoints.c_str());
    const uint8_t in = usbd_host_device_in_endpoint(device);
    const uint8_t out = usbd_host_device_out_endpoint(device);
    std::printf("  data: IN 0x%02x (max packet %u), OUT 0x%02x (max packet %u)\n", in,
                usbd_host_device_max_packet(device, in), out, usbd_host_device_max_packet(device, out));
}

// The library's message, with the option that resolves an ambiguity named.
int failWith(usbd_host *host, usbd_host_status status)
{
    std::string message = usbd_host_error(host);
    if (status == USBD_HOST_AMBIGUOUS)
        message += " (--device BUS:ADDR)";
    return fail(exitCodeFor(status), message);
}

HostPtr newSession(const Options &options)
{
    HostPtr host(usbd_host_new());
    if (!host)
        return host;
    usbd_host_select(host.get(), options.device.bus, options.device.address);
    usbd_host_set_wait(host.get(), options.wait);
    usbd_host_set_idle_timeout(host.get(), unsigned(options.timeoutMs));
    session = host.get();
    return host;
}

int runList(const Options &options)
{
    const HostPtr host = newSession(options);
    if (!host)
        return fail(kExitUsbError, "out of memory");
    usbd_host_list *raw = nullptr;
    const usbd_host_status status = usbd_host_list_devices(host.get(), &raw);
    const ListPtr list(raw);
    if (status != USBD_HOST_OK)
        return failWith(host.get(), status);
    for (size_t i = 0; i < usbd_host_list_count(list.get()); ++i) {
        if (i != 0)
            std::printf("\n");
        printDevice(usbd_host_list_get(list.get(), i));
    }
    return kExitOk;
}

std::string humanBytes(double bytes)
{
    const char *units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    int unit = 0;
    while (bytes >= 1024 && unit < 4) {
        bytes /= 1024;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof(text), unit == 0 ? "%.0f %s" : "%.1f %s", bytes, units[unit]);
    return text;
}

double megabytesPerSecond(uint64_t bytes, double seconds)
{
    return seconds > 0 ? double(bytes) / seconds / 1e6 : 0;
}

// A line on stderr rewritten in place, only where someone watches: in a log it is noise.
class Progress {
public:
    explicit Progress(const char *verb) : verb_(verb), enabled_(isatty(STDERR_FILENO) == 1) {}

    void show(uint64_t bytes, double seconds)
    {
        if (!enabled_)
            return;
        shown_ = true;
        std::fprintf(stderr, "\r%s %s, %.1f s, %.2f MB/s\033[K", verb_, humanBytes(double(bytes)).c_str(), seconds,
                     megabytesPerSecond(bytes, seconds));
        std::fflush(stderr);
    }

    void clear()
    {
        if (shown_)
            std::fprintf(stderr, "\r\033[K");
    }

private:
    const char *verb_;
    bool enabled_;
    bool shown_ = false;
};

// How a stream ended: its status, what moved, and why it broke off.
struct StreamEnd {
    usbd_host_status status = USBD_HOST_OK;
    uint64_t bytes = 0;
    double seconds = 0;
    uint64_t discarded = 0;
    std::string message;
};

StreamEnd streamEnd(usbd_host *host, usbd_host_status status)
{
    return {status, usbd_host_stream_bytes(host), usbd_host_stream_seconds(host), usbd_host_stream_discarded(host),
            usbd_host_error(host)};
}

void printSummary(FILE *out, const char *verb, const StreamEnd &result, Sha256 &hash)
{
    std::fprintf(out, "%s %llu bytes in %.3f s, %.2f MB/s, sha256 %s\n", verb,
                 static_cast<unsigned long long>(result.bytes), result.seconds,
                 megabytesPerSecond(result.bytes, result.seconds), hash.finishHex().c_str());
    std::fflush(out);
}

bool writeAll(int fd, const uint8_t *data, size_t size, std::string *error)
{
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (written < 0) {
            if (errno == EINTR)
                continue;
            *error = std::strerror(errno);
            return false;
        }
        data += written;
        size -= size_t(written);
    }
    return true;
}

// A session with the device opened, or null with *code set.
HostPtr openDevice(const Options &options, Progress *progress, int *code)
{
    HostPtr host = newSession(options);
    if (!host) {
        *code = fail(kExitUsbError, "out of memory");
        return host;
    }
    usbd_host_set_progress(
        host.get(), [](uint64_t bytes, double seconds, void *user) { static_cast<Progress *>(user)->show(bytes, seconds); },
        progress);
    const usbd_host_status status = usbd_host_open(host.get());
    if (status != USBD_HOST_OK) {
        *code = failWith(host.get(), status);
        host.reset();
        session = nullptr;
    }
    return host;
}

// Says why a transfer ended early, after its summary.
void reportEnd(const StreamEnd &result, int code, const std::string &fileError, const std::string &fileName,
               uint64_t expected)
{
    if (result.discarded > 0)
        std::fprintf(stderr, "usbd-host: dropped %llu bytes that arrived past the limit\n",
                     static_cast<unsigned long long>(result.discarded));
    if (code == kExitOk)
        return;
    std::string why;
    switch (result.status) {
    case USBD_HOST_STOPPED:
        why = fileName + ": " + fileError;
        break;
    case USBD_HOST_TIMEOUT:
        why = result.message;
        if (expected != 0)
            why += " (" + std::to_string(result.bytes) + " of " + std::to_string(expected) + " bytes)";
        break;
    default:
        why = result.message;
        break;
    }
    fail(code, why);
}

int runReceive(const Options &options)
{
    // The file first: a name that cannot be written should not cost a claimed device.
    UniqueFd file;
    int fd = -1;
    const bool toStdout = options.output == "-";
    if (toStdout) {
        fd = STDOUT_FILENO;
    } else if (!options.output.empty()) {
        file.reset(::open(options.output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
        if (!file)
            return fail(kExitFile, "cannot open " + options.output + " for writing: " + std::strerror(errno));
        fd = file.get();
    }

    int code = kExitOk;
    Progress progress("received");
    const HostPtr host = openDevice(options, &progress, &code);
    if (!host)
        return code;

    struct Sink {
        Sha256 hash;
        int fd;
        std::string fileError;
    } sink{Sha256(), fd, std::string()};
    const usbd_host_status status = usbd_host_receive(
        host.get(), options.bytes,
        [](const uint8_t *data, size_t size, void *user) {
            auto *into = static_cast<Sink *>(user);
            into->hash.update(data, size);
            return int(into->fd < 0 || writeAll(into->fd, data, size, &into->fileError));
        },
        &sink);
    progress.clear();

    StreamEnd final = streamEnd(host.get(), status);
    if (file && ::close(file.release()) != 0 && final.status != USBD_HOST_STOPPED) {
        // Some file systems report a failed write only when the file is closed.
        sink.fileError = std::strerror(errno);
        final.status = USBD_HOST_STOPPED;
    }
    code = receiveExitCode(final.status, final.bytes, options.bytes);
    printSummary(toStdout ? stderr : stdout, "received", final, sink.hash);
    const std::string name = toStdout ? std::string("stdout") : options.output;
    reportEnd(final, code, sink.fileError, name, options.bytes);
    return code;
}

int runSend(const Options &options)
{
    UniqueFd file(::open(options.file.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file)
        return fail(kExitFile, "cannot open " + options.file + ": " + std::strerror(errno));
    struct stat info {};
    uint64_t size = 0;
    if (fstat(file.get(), &info) == 0 && S_ISREG(info.st_mode))
        size = uint64_t(info.st_size);

    int code = kExitOk;
    Progress progress("sent");
    // The device ends a send only by taking no more: the idle time-out, never a byte limit.
    const HostPtr host = openDevice(options, &progress, &code);
    if (!host)
        return code;

    struct Source {
        Sha256 hash;
        int fd;
        std::string fileError;
    } source{Sha256(), file.get(), std::string()};
    const usbd_host_status status = usbd_host_send(
        host.get(),
        [](uint8_t *buffer, size_t room, void *user) -> long {
            auto *from = static_cast<Source *>(user);
            for (;;) {
                const ssize_t count = ::read(from->fd, buffer, room);
                if (count >= 0)
                    return long(count);
                if (errno != EINTR) {
                    from->fileError = std::strerror(errno);
                    return -1;
                }
            }
        },
        [](const uint8_t *data, size_t length, void *user) { static_cast<Source *>(user)->hash.update(data, length); },
        &source);
    progress.clear();

    const StreamEnd result = streamEnd(host.get(), status);
    code = exitCodeFor(result.status);
    printSummary(stdout, "sent", result, source.hash);
    reportEnd(result, code, source.fileError, options.file, size);
    return code;
}

} // namespace

int main(int argc, char **argv)
{
    const Parsed parsed = parseCommandLine(std::vector<std::string>(argv + 1, argv + argc));
    switch (parsed.action) {
    case Parsed::Action::Help:
        std::fputs(parsed.text.c_str(), stdout);
        return kExitOk;
    case Parsed::Action::Version:
        std::printf("usbd-host %s\n", USBD_VERSION);
        return kExitOk;
    case Parsed::Action::Error:
        std::fprintf(stderr, "usbd-host: %s\nTry 'usbd-host --help'.\n", parsed.text.c_str());
        return kExitUsage;
    case Parsed::Action::Run:
        break;
    }

    installSignalHandlers();
    switch (parsed.options.command) {
    case Command::List:
        return runList(parsed.options);
    case Command::Receive:
        return runReceive(parsed.options);
    case Command::Send:
        return runSend(parsed.options);
    }
    return kExitUsage;
}
