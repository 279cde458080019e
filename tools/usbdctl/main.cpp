// usbdctl: a command-line client of usbd for the people who deploy and debug it.

#include <cstdio>

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QStringList>

#include "commands.h"
#include "requests.h"

using namespace usbdctl;

namespace {

const Command *findCommand(const QString &name)
{
    for (const Command &command : commands()) {
        if (command.name == name)
            return &command;
    }
    return nullptr;
}

void printMainHelp(FILE *out)
{
    QString text = QStringLiteral(
        "usage: usbdctl [--session] COMMAND [OPTIONS] [ARGUMENTS]\n"
        "       usbdctl COMMAND --help\n\n"
        "Talks to usbd, the device's USB link daemon: shows and follows its link state and\n"
        "hands it data to send to the host. Most commands use its D-Bus service\n"
        "com.korvane.usbd on the system bus; socket-send and interrupt use its request\n"
        "socket /tmp/usbd-socket.\n\n"
        "Commands:\n");
    for (const Command &command : commands())
        text += QStringLiteral("  %1%2\n").arg(command.name.leftJustified(13), command.summary);
    text += QStringLiteral("\nOptions of every command:\n");
    std::vector<OptionInfo> options = commonOptions();
    options.push_back(
        {QStringLiteral("version"), QChar(), QString(), QStringLiteral("show the version")});
    text += describeOptions(options);
    text += QStringLiteral(
        "\nA send waits for the daemon's answer, which comes when the data has gone out. It "
        "prints\n"
        "nothing when it succeeds, except on a terminal, where it shows the request under way\n"
        "and then its size, time and throughput. Errors go to stderr, one line each.\n\n"
        "Exit status:\n"
        "  0  done\n"
        "  1  usage error: unknown command or option, bad value, data that does not fit\n"
        "  2  usbd is not running: nothing owns com.korvane.usbd on the bus, or nothing\n"
        "     listens on the socket\n"
        "  3  access denied: the bus lets only root and members of the group \"usbd\" in\n"
        "  4  a local file is missing, unreadable, not a regular file or empty\n"
        "  5  the transfer failed: the link is down (link_type none), or usbd could not carry\n"
        "     out the request (a file it cannot read, the transfer broke off, ...)\n"
        "  6  another D-Bus or socket error (no bus, the daemon closed the connection, ...)\n"
        "  7  no answer in time (see --timeout); a request still queued when the link type\n"
        "     changes is dropped and never answered\n"
        "  8  watch: usbd left the bus, or the connection to the bus was lost\n\n"
        "Environment:\n"
        "  DBUS_SYSTEM_BUS_ADDRESS   the system bus to use (DBUS_SESSION_BUS_ADDRESS with -s)\n\n"
        "Examples:\n"
        "  usbdctl status\n"
        "  usbdctl watch\n"
        "  usbdctl send-file --padding 16 header.bin frame.bin\n"
        "  usbdctl socket-send --text hello\n");
    std::fputs(qPrintable(text), out);
}

void printCommandHelp(const Command &command)
{
    QString text = QStringLiteral("usage: usbdctl %1 [OPTIONS]%2%3\n%4\n\n%5\nOptions:\n")
                       .arg(command.name, command.synopsis.isEmpty() ? "" : " ", command.synopsis,
                            command.summary, command.details);
    std::vector<OptionInfo> options = command.options;
    for (const OptionInfo &common : commonOptions())
        options.push_back(common);
    text += describeOptions(options);
    text += QStringLiteral("\nExit status: 0 done; 1 usage; 2 usbd not running; 3 access denied;\n"
                           "4 local file; 5 transfer failed; 6 other error; 7 timeout;\n"
                           "8 usbd or the bus went away (watch).\n");
    std::fputs(qPrintable(text), stdout);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("usbdctl"));
    QCoreApplication::setApplicationVersion(QStringLiteral(USBD_VERSION));
    // The shared-memory layer reports its set-up at info level, which is the daemon's log and
    // not news to a user of the tool. QT_LOGGING_RULES still overrides this.
    QLoggingCategory::setFilterRules(QStringLiteral("default.info=false"));

    QStringList args = QCoreApplication::arguments().mid(1);
    // Options before the command: the ones every command takes, handed on to it.
    QStringList leading;
    while (!args.isEmpty() && args.first().startsWith(QLatin1Char('-'))) {
        const QString option = args.takeFirst();
        if (option == QLatin1String("-h") || option == QLatin1String("--help")) {
            printMainHelp(stdout);
            return kExitOk;
        }
        if (option == QLatin1String("--version")) {
            std::printf("usbdctl %s\n", USBD_VERSION);
            return kExitOk;
        }
        if (option != QLatin1String("-s") && option != QLatin1String("--session"))
            return usageError(
                QStringLiteral("unknown option %1 (options of a command go after it)").arg(option));
        leading.append(option);
    }
    if (args.isEmpty()) {
        printMainHelp(stderr);
        return kExitUsage;
    }

    QString name = args.takeFirst();
    if (name == QLatin1String("help")) {
        if (args.isEmpty()) {
            printMainHelp(stdout);
            return kExitOk;
        }
        name = args.first();
        args = QStringList(QStringLiteral("--help"));
    }
    const Command *command = findCommand(name);
    if (!command)
        return usageError(QStringLiteral("unknown command \"%1\"").arg(name));

    std::vector<OptionInfo> options = command->options;
    for (const OptionInfo &common : commonOptions())
        options.push_back(common);
    Arguments parsed;
    QString error;
    if (!parseArguments(leading + args, options, &parsed, &error))
        return usageError(QStringLiteral("%1: %2").arg(command->name, error));
    if (parsed.has(QStringLiteral("help"))) {
        printCommandHelp(*command);
        return kExitOk;
    }
    return command->run(parsed);
}
