#pragma once

// The emulator's one log channel: stderr, one line per thing a person wants to see, each line
// written with a single write() so that lines from the emulator's threads never interleave.

namespace usbdemu {

void setVerbose(bool verbose);
bool verbose();

// printf-style; the "usbd-emu: " prefix and the newline are added here.
void logLine(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
// Only with -v: per-request detail that would drown the useful lines otherwise.
void logVerbose(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

} // namespace usbdemu
