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
