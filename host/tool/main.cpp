// usbd-host: the host end of usbd's USB function, for the people who read from the device.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <usbd/host.h>
#include <usbd/unique_fd.h>

#include "options.h"

using namespace usbdhost;
using usbd::UniqueFd;
using usbd::host::DeviceInfo;
using usbd::host::Link;
using usbd::host::Sha256;
using usbd::host::Status;
using usbd::host::StreamOptions;
using usbd::host::StreamResult;

namespace {

usbd::host::StopFlag stopRequested{false};

void onStopSignal(int)
{
    stopRequested.store(true);
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

void printDevice(const DeviceInfo &device)
{
    const auto &function = device.function;
    std::printf("%s %04x:%04x %s\n", usbd::host::toString(device.location).c_str(), device.vendorId,
                device.productId, usbd::host::speedName(device.speed));
    if (!device.stringsError.empty())
        std::printf("  strings: %s\n", printable(device.stringsError).c_str());
    std::printf("  manufacturer: %s\n", shown(device.manufacturer).c_str());
    std::printf("  product: %s\n", shown(device.product).c_str());
    std::printf("  serial: %s\n", shown(device.serialNumber).c_str());
    std::printf("  configuration: %u, MaxPower %u mA\n", unsigned(device.configurationValue), device.maxPowerMilliamps);
    std::printf("  interface: %u, alternate setting %u, class ff/00/00, name %s\n", unsigned(function.interfaceNumber),
                unsigned(function.alternateSetting), shown(device.interfaceName).c_str());
    std::string endpoints;
    for (const auto &endpoint : function.endpoints) {
        char text[32];
        std::snprintf(text, sizeof(text), "%s%s 0x%02x", endpoints.empty() ? "" : ", ",
                      (endpoint.address & 0x80) ? "IN" : "OUT", endpoint.address);
        endpoints += text;
    }
    std::printf("  endpoints: %s\n", endpoints.c_str());
    std::printf("  data: IN 0x%02x (max packet %u), OUT 0x%02x (max packet %u)\n", function.in.address,
                unsigned(function.in.maxPacketSize), function.out.address, unsigned(function.out.maxPacketSize));
}

int runList(const Options &options)
{
    std::vector<DeviceInfo> devices;
    std::string error;
    const Status status = usbd::host::listDevices({options.device, options.wait, &stopRequested}, &devices, &error);
    if (status != Status::Ok)
        return fail(exitCodeFor(status), error);
    for (size_t i = 0; i < devices.size(); ++i) {
        if (i != 0)
            std::printf("\n");
        printDevice(devices[i]);
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

void printSummary(FILE *out, const char *verb, const StreamResult &result, Sha256 &hash)
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

std::unique_ptr<Link> openLink(const Options &options, int *code)
{
    std::unique_ptr<Link> link;
    std::string error;
    const Status status = Link::open({options.device, options.wait, &stopRequested}, &link, &error);
    if (status != Status::Ok)
        *code = fail(exitCodeFor(status), error);
    return link;
}

StreamOptions streamOptions(const Options &options, Progress *progress)
{
    StreamOptions stream;
    stream.limit = options.bytes;
    stream.idleTimeoutMs = options.timeoutMs;
    stream.stop = &stopRequested;
    stream.progress = [progress](uint64_t bytes, double seconds) { progress->show(bytes, seconds); };
    return stream;
}

// Says why a transfer ended early, after its summary.
void reportEnd(const StreamResult &result, int code, const std::string &fileError, const std::string &fileName,
               uint64_t expected)
{
    if (result.discarded > 0)
        std::fprintf(stderr, "usbd-host: dropped %llu bytes that arrived past the limit\n",
                     static_cast<unsigned long long>(result.discarded));
    if (code == kExitOk)
        return;
    std::string why;
    switch (result.status) {
    case Status::Stopped:
        why = fileName + ": " + fileError;
        break;
    case Status::Timeout:
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
    const std::unique_ptr<Link> link = openLink(options, &code);
    if (!link)
        return code;

    Sha256 hash;
    std::string fileError;
    Progress progress("received");
    const StreamResult result = link->receive(streamOptions(options, &progress), [&](const uint8_t *data, size_t size) {
        hash.update(data, size);
        return fd < 0 || writeAll(fd, data, size, &fileError);
    });
    progress.clear();

    StreamResult final = result;
    if (file && ::close(file.release()) != 0 && final.status != Status::Stopped) {
        // Some file systems report a failed write only when the file is closed.
        fileError = std::strerror(errno);
        final.status = Status::Stopped;
    }
    code = receiveExitCode(final, options.bytes);
    printSummary(toStdout ? stderr : stdout, "received", final, hash);
    const std::string name = toStdout ? std::string("stdout") : options.output;
    reportEnd(final, code, fileError, name, options.bytes);
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
    const std::unique_ptr<Link> link = openLink(options, &code);
    if (!link)
        return code;

    Sha256 hash;
    std::string fileError;
    Progress progress("sent");
    Options unlimited = options;
    unlimited.bytes = 0;
    const StreamResult result = link->send(
        streamOptions(unlimited, &progress),
        [&](uint8_t *buffer, size_t room) -> long {
            for (;;) {
                const ssize_t count = ::read(file.get(), buffer, room);
                if (count >= 0)
                    return long(count);
                if (errno != EINTR) {
                    fileError = std::strerror(errno);
                    return -1;
                }
            }
        },
        [&](const uint8_t *data, size_t length) { hash.update(data, length); });
    progress.clear();

    code = exitCodeFor(result.status);
    printSummary(stdout, "sent", result, hash);
    reportEnd(result, code, fileError, options.file, size);
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
