// usbd-host's command line and exit statuses: scripts on the host act on the status alone, so
// each way a run can end must map to its documented code, and bad input must be refused before
// any device is touched.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "options.h"

namespace {

using namespace usbdhost;
using usbd::host::Status;
using usbd::host::StreamResult;

Parsed parse(std::vector<std::string> args)
{
    return parseCommandLine(args);
}

TEST(CommandLine, CommandsWithTheirOptionsAndTheGlobalOnesOnEitherSide)
{
    Parsed parsed = parse({"receive", "-o", "out.bin", "-n", "64M", "--timeout=250"});
    ASSERT_EQ(parsed.action, Parsed::Action::Run) << parsed.text;
    EXPECT_EQ(parsed.options.command, Command::Receive);
    EXPECT_EQ(parsed.options.output, "out.bin");
    EXPECT_EQ(parsed.options.bytes, 64u << 20);
    EXPECT_EQ(parsed.options.timeoutMs, 250);
    EXPECT_FALSE(parsed.options.device);
    EXPECT_FALSE(parsed.options.wait);

    parsed = parse({"--device", "3:7", "--wait", "receive", "--output=-", "--bytes", "3000016"});
    ASSERT_EQ(parsed.action, Parsed::Action::Run) << parsed.text;
    EXPECT_EQ(parsed.options.device, (usbd::host::BusAddress{3, 7}));
    EXPECT_TRUE(parsed.options.wait);
    EXPECT_EQ(parsed.options.output, "-");
    EXPECT_EQ(parsed.options.bytes, 3000016u);
    EXPECT_EQ(parsed.options.timeoutMs, kDefaultTimeoutMs);

    parsed = parse({"list", "--device=001:005", "--wait"});
    ASSERT_EQ(parsed.action, Parsed::Action::Run) << parsed.text;
    EXPECT_EQ(parsed.options.command, Command::List);
    EXPECT_EQ(parsed.options.device, (usbd::host::BusAddress{1, 5}));

    // A file whose name looks like an option, after "--"; later options win.
    parsed = parse({"send", "--timeout", "5", "--timeout", "0", "--", "-strange name"});
    ASSERT_EQ(parsed.action, Parsed::Action::Run) << parsed.text;
    EXPECT_EQ(parsed.options.file, "-strange name");
    EXPECT_EQ(parsed.options.timeoutMs, 0);
    parsed = parse({"receive", "-ofile", "-n1"});
    ASSERT_EQ(parsed.action, Parsed::Action::Run) << parsed.text;
    EXPECT_EQ(parsed.options.output, "file");
    EXPECT_EQ(parsed.options.bytes, 1u);
}

TEST(CommandLine, HelpAndVersionWinWherever)
{
    EXPECT_EQ(parse({"--help"}).action, Parsed::Action::Help);
    EXPECT_EQ(parse({"--version"}).action, Parsed::Action::Version);
    const Parsed receiveHelp = parse({"receive", "-n", "5", "--help"});
    EXPECT_EQ(receiveHelp.action, Parsed::Action::Help);
    EXPECT_NE(receiveHelp.text.find("usbd-host receive"), std::string::npos);
    const Parsed sendHelp = parse({"help", "send"});
    EXPECT_EQ(sendHelp.action, Parsed::Action::Help);
    EXPECT_NE(sendHelp.text.find("usbd-host send"), std::string::npos);
    // The main help documents every exit status the tool uses.
    const std::string main = parse({"-h"}).text;
    for (int code : {kExitOk, kExitUsage, kExitNoDevice, kExitPermission, kExitGone, kExitTimeout, kExitUsbError,
                     kExitFile, kExitInterrupted}) {
        SCOPED_TRACE(code);
        EXPECT_NE(main.find("\n  " + std::to_string(code) + " "), std::string::npos);
    }
    EXPECT_NE(main.find("70-usbd-host.rules"), std::string::npos);
}

TEST(CommandLine, BadInputIsAUsageErrorThatSaysWhat)
{
    struct Case {
        std::vector<std::string> args;
        const char *mentions;
    };
    const std::vector<Case> cases = {
        {{}, "no command"},
        {{"fetch"}, "fetch"},
        {{"-o", "x", "receive"}, "-o"},            // a command's option before the command
        {{"list", "-o", "x"}, "-o"},               // another command's option
        {{"list", "extra"}, "extra"},
        {{"receive", "-n"}, "needs a value"},
        {{"receive", "-n", "0"}, "--bytes"},
        {{"receive", "-n", "12x"}, "12x"},
        {{"receive", "-n", "-5"}, "-5"},
        {{"receive", "-n", "99999999999999999999"}, "--bytes"},
        {{"receive", "-n", "17179869184G"}, "--bytes"}, // 2^64 bytes
        {{"receive", "-n", "M"}, "--bytes"},
        {{"receive", "--timeout", "-1"}, "--timeout"},
        {{"receive", "--timeout", "2147483648"}, "--timeout"},
        {{"receive", "--output="}, "--output"},
        {{"receive", "--wait=yes"}, "takes no value"},
        {{"--device", "1:200", "list"}, "1:200"},
        {{"list", "--device", "bus1"}, "bus1"},
        {{"send"}, "exactly one FILE"},
        {{"send", "a", "b"}, "exactly one FILE"},
        {{"help", "fetch"}, "fetch"},
    };
    for (const Case &c : cases) {
        std::string joined;
        for (const std::string &arg : c.args)
            joined += arg + " ";
        SCOPED_TRACE(joined);
        const Parsed parsed = parseCommandLine(c.args);
        EXPECT_EQ(parsed.action, Parsed::Action::Error);
        EXPECT_NE(parsed.text.find(c.mentions), std::string::npos) << parsed.text;
    }
}

TEST(ExitCodes, EachWayToEndHasItsStatus)
{
    EXPECT_EQ(exitCodeFor(Status::Ok), kExitOk);
    EXPECT_EQ(exitCodeFor(Status::NotFound), kExitNoDevice);
    EXPECT_EQ(exitCodeFor(Status::Ambiguous), kExitUsage);
    EXPECT_EQ(exitCodeFor(Status::AccessDenied), kExitPermission);
    EXPECT_EQ(exitCodeFor(Status::Gone), kExitGone);
    EXPECT_EQ(exitCodeFor(Status::Timeout), kExitTimeout);
    EXPECT_EQ(exitCodeFor(Status::Busy), kExitUsbError);
    EXPECT_EQ(exitCodeFor(Status::Failed), kExitUsbError);
    EXPECT_EQ(exitCodeFor(Status::Stopped), kExitFile);
    EXPECT_EQ(exitCodeFor(Status::Interrupted), kExitInterrupted);

    auto result = [](Status status, uint64_t bytes) {
        StreamResult r;
        r.status = status;
        r.bytes = bytes;
        return r;
    };
    // Without -n the data stopping is the normal end, once something came.
    EXPECT_EQ(receiveExitCode(result(Status::Timeout, 10), 0), kExitOk);
    EXPECT_EQ(receiveExitCode(result(Status::Timeout, 0), 0), kExitTimeout);
    // With -n only the limit is success.
    EXPECT_EQ(receiveExitCode(result(Status::Ok, 100), 100), kExitOk);
    EXPECT_EQ(receiveExitCode(result(Status::Timeout, 99), 100), kExitTimeout);
    EXPECT_EQ(receiveExitCode(result(Status::Gone, 10), 0), kExitGone);
    EXPECT_EQ(receiveExitCode(result(Status::Interrupted, 10), 0), kExitInterrupted);
}

} // namespace
