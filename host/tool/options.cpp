#include "options.h"

#include <climits>

namespace usbdhost {

namespace {

const char kMainHelp[] =
    "usage: usbd-host [--device BUS:ADDR] [--wait] COMMAND [OPTIONS]\n"
    "       usbd-host COMMAND --help\n"
    "\n"
    "Talks to usbd's USB function on a device attached to this host: one vendor interface\n"
    "(class ff/00/00) with four bulk endpoints, found by that shape whatever the device's\n"
    "vendor and product ids. The device sends on the first bulk IN endpoint and receives\n"
    "(D-Bus open_file) on the first bulk OUT endpoint.\n"
    "\n"
    "Commands:\n"
    "  list       every attached device that carries the function\n"
    "  receive    read what the device sends into a file, or discard it\n"
    "  send       write a file to the device\n"
    "\n"
    "Options of every command:\n"
    "  --device BUS:ADDR   only the device at this bus number and address, as lsusb shows them\n"
    "  --wait              wait until the function appears instead of failing\n"
    "  -h, --help          show help\n"
    "  --version           show the version\n"
    "\n"
    "Exit status:\n"
    "  0    done\n"
    "  1    usage error, or several devices carry the function and --device chose none\n"
    "  2    no device carries the function (or none at --device)\n"
    "  3    permission denied: the message says which udev rule gives access\n"
    "  4    the device left the bus in the middle\n"
    "  5    time-out: nothing moved for --timeout ms\n"
    "  6    another USB error (interface in use by another program, stall, ...)\n"
    "  7    a local file cannot be read or written\n"
    "  130  interrupted (Ctrl-C); the summary of what moved is printed first\n";

const char kListHelp[] =
    "usage: usbd-host list [--device BUS:ADDR] [--wait]\n"
    "\n"
    "Shows every attached device that carries the function: bus and address, vendor and\n"
    "product ids, link speed, strings, configuration and MaxPower, the interface, its four\n"
    "endpoints and the two the data travels on. Strings need access to the device; without\n"
    "it the rest is still shown. Exit status 2 when there is none.\n";

const char kReceiveHelp[] =
    "usage: usbd-host receive [-o FILE] [-n BYTES] [--timeout MS] [--device BUS:ADDR] [--wait]\n"
    "\n"
    "Reads what the device sends (its send_data, send_file, send_shm_data and socket requests)\n"
    "in 1 MiB transfers, several at a time, until BYTES have arrived or nothing has arrived\n"
    "for MS milliseconds. Then prints one line on stdout (stderr with -o -):\n"
    "  received BYTES bytes in SECONDS s, RATE MB/s, sha256 HEX\n"
    "SECONDS run from the start to the last byte, not counting the wait at the end. On a\n"
    "terminal a progress line shows on stderr while data arrives.\n"
    "\n"
    "Options:\n"
    "  -o, --output FILE   write the data to FILE (\"-\": stdout); without it, discard it\n"
    "  -n, --bytes BYTES   stop after BYTES (a K, M or G suffix counts KiB, MiB, GiB)\n"
    "  --timeout MS        stop when nothing arrived for MS ms (default 10000; 0: never)\n"
    "\n"
    "Ending at the time-out is success when no -n was given and some data arrived;\n"
    "otherwise it is exit status 5.\n";

const char kSendHelp[] =
    "usage: usbd-host send [--timeout MS] [--device BUS:ADDR] [--wait] FILE\n"
    "\n"
    "Writes FILE to the device, where a D-Bus open_file call (usbdctl receive) takes it.\n"
    "The device takes exactly the size its open_file asked for: start that first, with the\n"
    "file's size. Prints at the end on stdout:\n"
    "  sent BYTES bytes in SECONDS s, RATE MB/s, sha256 HEX\n"
    "\n"
    "Options:\n"
    "  --timeout MS        give up when the device took nothing for MS ms (default 10000;\n"
    "                      0: never); exit status 5\n";

struct OptionKind {
    const char *longName;
    char shortName;
    bool takesValue;
};

const OptionKind kGlobalOptions[] = {
    {"device", 0, true}, {"wait", 0, false}, {"help", 'h', false}, {"version", 0, false}};
const OptionKind kReceiveOptions[] = {{"output", 'o', true}, {"bytes", 'n', true}, {"timeout", 0, true}};
const OptionKind kSendOptions[] = {{"timeout", 0, true}};

Parsed error(std::string text)
{
    Parsed parsed;
    parsed.action = Parsed::Action::Error;
    parsed.text = std::move(text);
    return parsed;
}

Parsed help(const char *text)
{
    Parsed parsed;
    parsed.action = Parsed::Action::Help;
    parsed.text = text;
    return parsed;
}

const char *helpFor(Command command)
{
    switch (command) {
    case Command::List:
        return kListHelp;
    case Command::Receive:
        return kReceiveHelp;
    case Command::Send:
        return kSendHelp;
    }
    return kMainHelp;
}

std::optional<Command> commandNamed(const std::string &name)
{
    if (name == "list")
        return Command::List;
    if (name == "receive")
        return Command::Receive;
    if (name == "send")
        return Command::Send;
    return std::nullopt;
}

std::optional<int> parseMilliseconds(const std::string &text)
{
    if (text.empty() || text.size() > 10)
        return std::nullopt;
    long long value = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return std::nullopt;
        value = value * 10 + (c - '0');
    }
    if (value > INT_MAX)
        return std::nullopt;
    return int(value);
}

struct Occurrence {
    const OptionKind *kind = nullptr;
    std::string value;
};

// Reads one option at args[*index] ("--name=value", "--name value", "-x value" or "-xvalue"),
// moving *index past its value. Returns an error text, empty when the option is known.
std::string takeOption(const std::vector<std::string> &args, size_t *index,
                       const std::vector<const OptionKind *> &known, Occurrence *out)
{
    const std::string &arg = args[*index];
    std::string name;
    std::optional<std::string> inlineValue;
    bool isLong = arg.rfind("--", 0) == 0;
    if (isLong) {
        const size_t equals = arg.find('=');
        name = arg.substr(2, equals == std::string::npos ? std::string::npos : equals - 2);
        if (equals != std::string::npos)
            inlineValue = arg.substr(equals + 1);
    } else {
        name = arg.substr(1, 1);
        if (arg.size() > 2)
            inlineValue = arg.substr(2);
    }
    for (const OptionKind *kind : known) {
        const bool matches = isLong ? name == kind->longName : (kind->shortName != 0 && name[0] == kind->shortName);
        if (!matches)
            continue;
        out->kind = kind;
        if (!kind->takesValue) {
            if (inlineValue)
                return "option --" + std::string(kind->longName) + " takes no value";
            return std::string();
        }
        if (inlineValue) {
            out->value = *inlineValue;
        } else {
            if (*index + 1 >= args.size())
                return "option " + arg + " needs a value";
            out->value = args[++*index];
        }
        return std::string();
    }
    return "unknown option " + arg;
}

bool isOption(const std::string &arg)
{
    return arg.size() > 1 && arg[0] == '-';
}

// A global option; an error text when its value is bad.
std::string applyGlobal(const Occurrence &occurrence, Options *options)
{
    const std::string name = occurrence.kind->longName;
    if (name == "device") {
        if (usbd_host_parse_address(occurrence.value.c_str(), &options->device.bus, &options->device.address) != 0)
            return "--device wants BUS:ADDR in decimal (bus 1-255, address 1-127), not \"" + occurrence.value + "\"";
    } else if (name == "wait") {
        options->wait = true;
    }
    return std::string();
}

} // namespace

std::optional<uint64_t> parseByteCount(const std::string &text)
{
    if (text.empty())
        return std::nullopt;
    std::string digits = text;
    int shift = 0;
    switch (digits.back()) {
    case 'k':
    case 'K':
        shift = 10;
        break;
    case 'M':
        shift = 20;
        break;
    case 'G':
        shift = 30;
        break;
    default:
        break;
    }
    if (shift != 0)
        digits.pop_back();
    // Nineteen digits always fit in 64 bits; more would be more than any link carries anyway.
    if (digits.empty() || digits.size() > 19)
        return std::nullopt;
    uint64_t value = 0;
    for (char c : digits) {
        if (c < '0' || c > '9')
            return std::nullopt;
        value = value * 10 + uint64_t(c - '0');
    }
    if (value == 0 || value > (UINT64_MAX >> shift))
        return std::nullopt;
    return value << shift;
}

Parsed parseCommandLine(const std::vector<std::string> &args)
{
    Parsed parsed;
    Options &options = parsed.options;
    size_t i = 0;

    // Before the command: only the options every command takes.
    std::vector<const OptionKind *> globals;
    for (const OptionKind &kind : kGlobalOptions)
        globals.push_back(&kind);
    for (; i < args.size() && isOption(args[i]) && args[i] != "--"; ++i) {
        Occurrence occurrence;
        std::string problem = takeOption(args, &i, globals, &occurrence);
        if (!problem.empty())
            return error(problem + " (options of a command go after it)");
        const std::string name = occurrence.kind->longName;
        if (name == "help")
            return help(kMainHelp);
        if (name == "version") {
            parsed.action = Parsed::Action::Version;
            return parsed;
        }
        problem = applyGlobal(occurrence, &options);
        if (!problem.empty())
            return error(problem);
    }
    if (i < args.size() && args[i] == "--")
        ++i;
    if (i >= args.size())
        return error("no command given");

    std::string name = args[i++];
    if (name == "help") {
        if (i >= args.size())
            return help(kMainHelp);
        const auto command = commandNamed(args[i]);
        if (!command)
            return error("unknown command \"" + args[i] + "\"");
        return help(helpFor(*command));
    }
    const auto command = commandNamed(name);
    if (!command)
        return error("unknown command \"" + name + "\"");
    options.command = *command;

    std::vector<const OptionKind *> known = globals;
    if (*command == Command::Receive)
        for (const OptionKind &kind : kReceiveOptions)
            known.push_back(&kind);
    if (*command == Command::Send)
        for (const OptionKind &kind : kSendOptions)
            known.push_back(&kind);

    std::vector<std::string> positionals;
    bool optionsEnded = false;
    for (; i < args.size(); ++i) {
        const std::string &arg = args[i];
        if (optionsEnded || !isOption(arg)) {
            positionals.push_back(arg);
            continue;
        }
        if (arg == "--") {
            optionsEnded = true;
            continue;
        }
        Occurrence occurrence;
        std::string problem = takeOption(args, &i, known, &occurrence);
        if (!problem.empty())
            return error(name + ": " + problem);
        const std::string option = occurrence.kind->longName;
        if (option == "help")
            return help(helpFor(*command));
        if (option == "version") {
            parsed.action = Parsed::Action::Version;
            return parsed;
        }
        if (option == "output") {
            if (occurrence.value.empty())
                return error(name + ": --output wants a file name");
            options.output = occurrence.value;
        } else if (option == "bytes") {
            const auto bytes = parseByteCount(occurrence.value);
            if (!bytes)
                return error(name + ": --bytes wants a positive byte count, not \"" + occurrence.value + "\"");
            options.bytes = *bytes;
        } else if (option == "timeout") {
            const auto ms = parseMilliseconds(occurrence.value);
            if (!ms)
                return error(name + ": --timeout wants milliseconds (0 for none), not \"" + occurrence.value + "\"");
            options.timeoutMs = *ms;
        } else {
            problem = applyGlobal(occurrence, &options);
            if (!problem.empty())
                return error(name + ": " + problem);
        }
    }

    if (*command == Command::Send) {
        if (positionals.size() != 1)
            return error("send: give exactly one FILE");
        options.file = positionals.front();
    } else if (!positionals.empty()) {
        return error(name + ": unexpected argument \"" + positionals.front() + "\"");
    }
    parsed.action = Parsed::Action::Run;
    return parsed;
}

int exitCodeFor(usbd_host_status status)
{
    switch (status) {
    case USBD_HOST_OK:
        return kExitOk;
    case USBD_HOST_NOT_FOUND:
        return kExitNoDevice;
    case USBD_HOST_AMBIGUOUS:
        return kExitUsage;
    case USBD_HOST_ACCESS_DENIED:
        return kExitPermission;
    case USBD_HOST_GONE:
        return kExitGone;
    case USBD_HOST_TIMEOUT:
        return kExitTimeout;
    case USBD_HOST_INTERRUPTED:
        return kExitInterrupted;
    case USBD_HOST_STOPPED:
        return kExitFile; // the data callbacks stop only when the local file fails
    case USBD_HOST_BUSY:
    case USBD_HOST_FAILED:
        return kExitUsbError;
    }
    return kExitUsbError;
}

int receiveExitCode(usbd_host_status status, uint64_t bytes, uint64_t limit)
{
    if (status == USBD_HOST_TIMEOUT && limit == 0 && bytes > 0)
        return kExitOk;
    return exitCodeFor(status);
}

} // namespace usbdhost
