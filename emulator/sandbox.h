#pragma once

// The emulator's private world: a mount namespace in which /tmp, /dev, /run and the gadget's
// sysfs/configfs corners are the emulator's own, and a pid namespace whose init runs the
// command. Nothing of it is visible on the host, and all of it ends with the emulator.

#include <sys/types.h>

#include <string>
#include <vector>

namespace usbdemu {

// Directory for the emulator's own files inside the namespace.
constexpr const char kPrivateRunDir[] = "/run/usbd-emu";
constexpr const char kDbusSocketDir[] = "/run/dbus";
constexpr const char kDbusAddress[] = "unix:path=/run/dbus/system_bus_socket";
constexpr const char kDbusSocketPath[] = "/run/dbus/system_bus_socket";

// Enters a new mount namespace and mounts everything the daemon and its tools expect. The
// caller must still be single-threaded. A tree of the host's /tmp that holds the working
// directory or `command` (a checkout built under /tmp) stays visible at its path inside.
bool enterSandbox(const std::string &command);

struct InitOptions {
    std::vector<std::string> command;
    std::vector<std::string> env; // NAME=VALUE added to the command's environment
    std::string dbusConfig;       // config file path inside; empty: no bus
    std::vector<int> closeFds;    // the emulator's descriptors, not for the namespace
    int lifeline = -1;            // read end of a pipe only the emulator holds open
};

// Starts the namespace's init (pid 1 of a new pid namespace, in a nested mount namespace with
// its own /proc), which runs the optional bus and then the command and exits with the
// command's status (128+signal when it was killed). Returns the init's pid, or -1.
pid_t startInit(const InitOptions &options);

} // namespace usbdemu
