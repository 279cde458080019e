#pragma once

// For test and benchmark programs that run inside the device emulator in the daemon's place:
// brings up the daemon's USB function on the emulated FunctionFS and opens its bulk endpoints.

#include <string>

#include <usbd/unique_fd.h>

namespace usbdtest {

struct FfsFunction {
    usbd::UniqueFd ep0;
    usbd::UniqueFd ep1; // bulk OUT, host to device
    usbd::UniqueFd ep3; // bulk IN, device to host
};

// Writes the daemon's descriptors and strings blobs to ep0 and opens ep1 and ep3 as the
// daemon does. False, with the reason in `why`, if any step fails.
bool bringUpFunction(FfsFunction *function, std::string *why);

// Runs `usbd-emuctl --name <name> <args>` (the emulator's name is taken from USBD_EMU_NAME,
// the tool from USBD_EMUCTL or PATH); true when it exits with status 0.
bool emuctl(const std::string &args);
// The same, returning what it printed (nothing if it could not run).
std::string emuctlOutput(const std::string &args);

// The whole content of a file (a capture, a log, a controller file); empty if it cannot be read.
std::string readFile(const std::string &path);

} // namespace usbdtest
