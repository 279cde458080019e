#pragma once

// usbd-host's command line and exit statuses, apart from the commands so that they can be
// tested without a device.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <usbd/host.h>

namespace usbdhost {

enum ExitCode {
    kExitOk = 0,
    kExitUsage = 1,
    kExitNoDevice = 2,
    kExitPermission = 3,
    kExitGone = 4,
    kExitTimeout = 5,
    kExitUsbError = 6,
    kExitFile = 7,
    kExitInterrupted = 130, // what a shell reports for a program ended by SIGINT
};

// Long enough to start a send on the device after starting receive on the host.
constexpr int kDefaultTimeoutMs = 10000;

enum class Command { List, Receive, Send };

// A device as lsusb names it; bus 0 for "the one that carries the function".
struct DeviceAddress {
    uint8_t bus = 0;
    uint8_t address = 0;
};

struct Options {
    Command command = Command::List;
    DeviceAddress device;
    bool wait = false;
    std::string output;    // receive: the file, "-" for stdout, empty to discard
    uint64_t bytes = 0;    // receive: stop after this many; 0 for no limit
    int timeoutMs = kDefaultTimeoutMs;
    std::string file;      // send
};

struct Parsed {
    enum class Action { Run, Help, Version, Error } action = Action::Error;
    Options options;
    std::string text; // the help text, or the error
};

// args: the command line without the program name.
Parsed parseCommandLine(const std::vector<std::string> &args);

// Byte counts: decimal digits with an optional K, M or G (KiB, MiB, GiB); at least 1.
std::optional<uint64_t> parseByteCount(const std::string &text);

// The exit status for a failure to find or open the device, or for a transfer's end.
int exitCodeFor(usbd_host_status status);
// receive ends normally after the limit, or, without one, when the data stops after some came.
int receiveExitCode(usbd_host_status status, uint64_t bytes, uint64_t limit);

} // namespace usbdhost
