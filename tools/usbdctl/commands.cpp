#include "commands.h"

#include <cstdio>

#include <usbd/protocol.h>

#include "requests.h"

namespace usbdctl {

namespace {

constexpr quint64 kDefaultTimeoutSeconds = 60;
constexpr quint64 kMaxTimeoutSeconds = 24 * 3600;

OptionInfo timeoutHelp(const char *what)
{
    return {QStringLiteral("timeout"), QChar(), QStringLiteral("SEC"),
            QStringLiteral("give up after SEC seconds without %1\n(default 60; exit status 7)")
                .arg(QLatin1String(what))};
}

const OptionInfo kAlignment{
    QStringLiteral("alignment"), QChar(), QStringLiteral("N"),
    QStringLiteral("element alignment of each piece (default 0), passed on\n"
                   "to the transport")};
const OptionInfo kPadding{
    QStringLiteral("padding"), QChar(), QStringLiteral("N"),
    QStringLiteral("zero bytes the daemon sends after each piece (default 0)")};
const OptionInfo kSessionId{QStringLiteral("session-id"), QChar(), QStringLiteral("N"),
                            QStringLiteral("session id of each piece, 0 to 65535 (default 0); it\n"
                                           "travels in the iOS link's frame header")};
const OptionInfo kSocket{QStringLiteral("socket"), QChar(), QStringLiteral("PATH"),
                         QStringLiteral("the daemon's request socket (default %1)")
                             .arg(QLatin1String(usbd::kSocketPath))};

} // namespace

std::vector<OptionInfo> commonOptions()
{
    return {
        {QStringLiteral("session"), QLatin1Char('s'), QString(),
         QStringLiteral("use the session bus instead of the system bus")},
        {QStringLiteral("help"), QLatin1Char('h'), QString(), QStringLiteral("show this help")},
    };
}

const std::vector<Command> &commands()
{
    static const std::vector<Command> table = {
        {QStringLiteral("status"),
         QString(),
         QStringLiteral("show the link type, super speed and charge-current limit"),
         QStringLiteral(
             "Reads the daemon's three properties and prints one line each:\n"
             "  link_type: usb (1)          none (0), usb (1), ios-mfi (2) or ios-wifi (3)\n"
             "  usb_super_speed: yes        the USB link runs at super speed\n"
             "  charge_current_max: 500 mA  the MaxPower the host granted; 0 while the link is "
             "down\n"),
         {},
         runStatus},
        {QStringLiteral("watch"),
         QString(),
         QStringLiteral("print each property change as it happens, with a time stamp"),
         QStringLiteral(
             "Prints the current values of the three properties, then one line per change as the\n"
             "daemon announces it, until interrupted (Ctrl-C) or --count changes have been seen:\n"
             "  2025-01-31 14:02:07.318 link_type: usb (1)\n"
             "Once the first three lines are out, no later change is missed. When the daemon\n"
             "leaves the bus or the connection to the bus is lost, watch says so on stderr and\n"
             "ends with exit status 8: from then on it could not tell a quiet link from none.\n"),
         {{QStringLiteral("count"), QChar(), QStringLiteral("N"),
           QStringLiteral("exit (status 0) after N changes, not counting the first values;\na "
                          "value announced again unchanged is no change")}},
         runWatch},
        {QStringLiteral("send-data"),
         QStringLiteral("[TEXT]"),
         QStringLiteral("send up to 255 bytes given on the command line (send_data)"),
         QStringLiteral(
             "Sends a few bytes to the host: TEXT as UTF-8, or the bytes of --hex or --file.\n"
             "The daemon's send_data carries at most 255 bytes; use send-file for more.\n"
             "Waits for the daemon's answer, which comes when the bytes have gone out.\n\n"
             "Example:\n"
             "  usbdctl send-data hello\n"
             "  usbdctl send-data --hex 'de ad be ef'\n"),
         {{QStringLiteral("hex"), QChar(), QStringLiteral("HEX"),
           QStringLiteral("the bytes as hexadecimal pairs (\"deadbeef\", \"de ad be ef\")")},
          {QStringLiteral("file"), QChar(), QStringLiteral("FILE"),
           QStringLiteral("the bytes of FILE (at most 255)")},
          {QStringLiteral("length"), QChar(), QStringLiteral("N"),
           QStringLiteral("the length to ask for, 0 to 255 (default: all the bytes);\n"
                          "at most the number of bytes given")},
          timeoutHelp("an answer")},
         runSendData},
        {QStringLiteral("send-file"),
         QStringLiteral("FILE..."),
         QStringLiteral("send files or parts of them in one request (send_file)"),
         QStringLiteral(
             "Sends every FILE, in the order given, as one request: the host receives the bytes\n"
             "of each file (from --offset, --size bytes) followed by --padding zero bytes. The\n"
             "options apply to every FILE. The daemon opens the files itself, by their absolute\n"
             "paths, so they must be readable by the daemon under the same path; usbdctl checks\n"
             "them here first (regular, readable, not empty) and computes the size of each.\n"
             "One request carries at most 32 files, or 16 with --padding.\n\n"
             "Example:\n"
             "  usbdctl send-file header.bin frame.bin\n"
             "  usbdctl send-file --offset 4096 --size 1024 --padding 12 video.bin\n"),
         {{QStringLiteral("offset"), QChar(), QStringLiteral("N"),
           QStringLiteral("first byte of each file to send (default 0)")},
          {QStringLiteral("size"), QChar(), QStringLiteral("N"),
           QStringLiteral("bytes to send of each file (default: up to its end)")},
          kAlignment,
          kPadding,
          kSessionId,
          timeoutHelp("an answer")},
         runSendFile},
        {QStringLiteral("send-shm"),
         QStringLiteral("FILE..."),
         QStringLiteral("copy files into shared memory and send it by handle (send_shm_data)"),
         QStringLiteral(
             "Allocates platform shared memory (ION, through the HAL) for each FILE, copies the\n"
             "file into it and asks the daemon to send it by its share handle, all files in one\n"
             "request. The daemon maps the memory from this process, so usbdctl keeps it until\n"
             "the answer has come. Needs /dev/ion. With the stand-in HAL of a development\n"
             "machine the handle names this process, so run usbdctl where the daemon can see\n"
             "it (in the emulator: usbd-emuctl exec -- usbdctl send-shm FILE).\n\n"
             "The daemon chooses how to reach the memory itself, whatever the request's\n"
             "use_physical_address flag says: over USB it hands the endpoint the physical\n"
             "address whenever the HAL reports one (parts that share a write with padding or\n"
             "the next piece go from its mapping), over the iOS link the library gets the\n"
             "handle. --physical and --virtual only set that flag; the host receives the same\n"
             "bytes the same way with either. At most 32 files, or 16 with --padding.\n\n"
             "Example:\n"
             "  usbdctl send-shm frame.yuv\n"),
         {{QStringLiteral("physical"), QChar(), QString(),
           QStringLiteral("send with use_physical_address true (default)")},
          {QStringLiteral("virtual"), QChar(), QString(),
           QStringLiteral("send with use_physical_address false; the daemon does\n"
                          "not act on the flag, so this changes nothing on the wire")},
          kAlignment,
          kPadding,
          kSessionId,
          timeoutHelp("an answer")},
         runSendShm},
        {QStringLiteral("receive"),
         QStringLiteral("FILE SIZE"),
         QStringLiteral("write the next SIZE bytes from the host into FILE (open_file)"),
         QStringLiteral(
             "Asks the daemon to read SIZE bytes that the host sends (bulk OUT) into FILE, which\n"
             "the daemon creates or empties; FILE is passed as an absolute path. The daemon\n"
             "answers at once and reports nothing about the data later: without --wait, usbdctl\n"
             "returns when the daemon has started receiving; with --wait it watches FILE grow\n"
             "until it holds SIZE bytes.\n\n"
             "Example:\n"
             "  usbdctl receive --wait /tmp/upload.bin 1048576\n"),
         {{QStringLiteral("wait"), QChar(), QString(),
           QStringLiteral("wait until FILE holds SIZE bytes (FILE is emptied first)")},
          {QStringLiteral("time-ms"), QChar(), QStringLiteral("MS"),
           QStringLiteral("the time_ms argument of open_file, which the daemon\n"
                          "accepts and does not use (default 0)")},
          {QStringLiteral("timeout"), QChar(), QStringLiteral("SEC"),
           QStringLiteral("give up after SEC seconds without an answer or, with\n"
                          "--wait, without all the data (default 60; exit status 7)")}},
         runReceive},
        {QStringLiteral("socket-send"),
         QStringLiteral("[--text T | --hex H | --file F | --handle H:O:S]..."),
         QStringLiteral("send memory and shared-memory entries over the request socket"),
         QStringLiteral(
             "Sends one request over the daemon's Unix socket and waits for its 8-byte answer.\n"
             "Each --text, --hex, --file and --handle adds one entry, in command-line order, and\n"
             "the host receives them in that order, each followed by --padding zero bytes. Data\n"
             "of memory entries travels inside the request, which holds 4096 bytes and 32\n"
             "entries (16 with --padding) at most;\n"
             "--handle names shared memory that another process holds (the daemon sends it\n"
             "from its physical address). Without entries the request is empty and is answered\n"
             "as soon as the daemon's queue reaches it.\n\n"
             "Example:\n"
             "  usbdctl socket-send --text hello --hex 0d0a\n"
             "  usbdctl socket-send --handle 0x1234000a0000:0:4096\n"),
         {{QStringLiteral("text"), QChar(), QStringLiteral("TEXT"),
           QStringLiteral("a memory entry with the UTF-8 bytes of TEXT")},
          {QStringLiteral("hex"), QChar(), QStringLiteral("HEX"),
           QStringLiteral("a memory entry with bytes given as hexadecimal pairs")},
          {QStringLiteral("file"), QChar(), QStringLiteral("FILE"),
           QStringLiteral("a memory entry with the bytes of FILE")},
          {QStringLiteral("handle"), QChar(), QStringLiteral("H:OFFSET:SIZE"),
           QStringLiteral("a handle entry: SIZE bytes from OFFSET in the shared memory\n"
                          "with share handle H (numbers in decimal or 0x hex)")},
          kAlignment,
          kPadding,
          {QStringLiteral("id"), QChar(), QStringLiteral("N"),
           QStringLiteral("the request id, echoed in the answer (default 1)")},
          kSocket,
          timeoutHelp("an answer")},
         runSocketSend},
        {QStringLiteral("interrupt"),
         QString(),
         QStringLiteral("interrupt the transfer's blocked write (over the request socket)"),
         QStringLiteral(
             "Sends an interrupt request over the daemon's Unix socket. The daemon signals its\n"
             "transfer thread once: a USB write blocked at that moment (a host that does not\n"
             "read) fails and its requester is told so; a signal that finds no blocked call\n"
             "changes nothing. Requests still queued are not affected. The daemon never answers\n"
             "an interrupt; usbdctl returns once the daemon has read it.\n"),
         {kSocket},
         runInterrupt},
    };
    return table;
}

int usageError(const QString &message)
{
    std::fprintf(stderr, "usbdctl: %s\n", qPrintable(message));
    std::fprintf(stderr, "Try 'usbdctl --help' or 'usbdctl COMMAND --help'.\n");
    return kExitUsage;
}

bool numberOption(const Arguments &arguments, const QString &name, quint64 max, quint64 fallback,
                  quint64 *out, int *exitCode)
{
    if (!arguments.has(name)) {
        *out = fallback;
        return true;
    }
    const QString text = arguments.value(name);
    const auto value = parseUnsigned(text, max);
    if (!value) {
        *exitCode = usageError(QStringLiteral("--%1 needs a number from 0 to %2, not \"%3\"")
                                   .arg(name)
                                   .arg(max)
                                   .arg(text));
        return false;
    }
    *out = *value;
    return true;
}

bool timeoutOption(const Arguments &arguments, int *timeoutMs, int *exitCode)
{
    quint64 seconds = 0;
    if (!numberOption(arguments, QStringLiteral("timeout"), kMaxTimeoutSeconds,
                      kDefaultTimeoutSeconds, &seconds, exitCode))
        return false;
    if (seconds == 0) {
        *exitCode = usageError(QStringLiteral("--timeout must be at least 1 second"));
        return false;
    }
    *timeoutMs = int(seconds * 1000);
    return true;
}

int reportNoAnswer(int timeoutMs)
{
    std::fprintf(stderr,
                 "usbdctl: no answer from usbd within %.1f s: the transfer is still under way, "
                 "or the request was dropped when the link changed\n",
                 timeoutMs / 1000.0);
    return kExitTimeout;
}

} // namespace usbdctl
