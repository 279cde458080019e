#pragma once

#include <vector>

#include "arguments.h"

namespace usbdctl {

// One usbdctl command: its options, its help text and what runs it. Each run function
// returns the process's exit status and has printed any error itself.
struct Command {
    QString name;
    QString synopsis; // the arguments after the command name
    QString summary;  // one line for the command list
    QString details;  // what it does, its output and its failures, for "usbdctl CMD --help"
    std::vector<OptionInfo> options;
    int (*run)(const Arguments &arguments);
};

const std::vector<Command> &commands();

// Options every command takes.
std::vector<OptionInfo> commonOptions();

int runStatus(const Arguments &arguments);
int runWatch(const Arguments &arguments);
int runSendData(const Arguments &arguments);
int runSendFile(const Arguments &arguments);
int runSendShm(const Arguments &arguments);
int runReceive(const Arguments &arguments);
int runSocketSend(const Arguments &arguments);
int runInterrupt(const Arguments &arguments);

// Prints "usbdctl: MESSAGE" on stderr and returns kExitUsage.
int usageError(const QString &message);

// Reads a numeric option; absent gives fallback. Reports a bad value as a usage error.
bool numberOption(const Arguments &arguments, const QString &name, quint64 max, quint64 fallback,
                  quint64 *out, int *exitCode);

// Reads --timeout SEC (default 60, at least 1) as milliseconds.
bool timeoutOption(const Arguments &arguments, int *timeoutMs, int *exitCode);

// Prints that no answer came within timeoutMs and returns kExitTimeout.
int reportNoAnswer(int timeoutMs);

} // namespace usbdctl
