#include "log.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>

namespace usbdemu {

namespace {

std::atomic<bool> gVerbose{false};

void emit(const char *fmt, va_list ap)
{
    char line[1024];
    int n = snprintf(line, sizeof line, "usbd-emu: ");
    const int body = vsnprintf(line + n, sizeof line - size_t(n) - 1, fmt, ap);
    n = body < 0 ? n : std::min<int>(n + body, int(sizeof line) - 2);
    line[n++] = '\n';
    // Best effort: a log line that cannot be written is not worth failing over.
    (void)!write(STDERR_FILENO, line, size_t(n));
}

} // namespace

void setVerbose(bool verbose)
{
    gVerbose = verbose;
}
bool verbose()
{
    return gVerbose;
}

void logLine(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    emit(fmt, ap);
    va_end(ap);
}

void logVerbose(const char *fmt, ...)
{
    if (!gVerbose)
        return;
    va_list ap;
    va_start(ap, fmt);
    emit(fmt, ap);
    va_end(ap);
}

} // namespace usbdemu
