// usbd-host's command line and exit statuses: scripts on the host act on the status alone, so
// each way a run can end must map to its documented code, and bad input must be refused before
// any device is touched.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "options.h"

namespace {

using namespace usbdhost;

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
    EXPECT_EQ(exitCodeFor(USBD_HOST_OK), kExitOk);
    EXPECT_EQ(exitCodeFor(USBD_HOST_NOT_FOUND), kExitNoDevice);
    EXPECT_EQ(exitCodeFor(USBD_HOST_AMBIGUOUS), kExitUsage);
    EXPECT_EQ(exitCodeFor(USBD_HOST_ACCESS_DENIED), kExitPermission);
    EXPECT_EQ(exitCodeFor(USBD_HOST_GONE), kExitGone);
    EXPECT_EQ(exitCodeFor(USBD_HOST_TIMEOUT), kExitTimeout);
    EXPECT_EQ(exitCodeFor(USBD_HOST_BUSY), kExitUsbError);
    EXPECT_EQ(exitCodeFor(USBD_HOST_FAILED), kExitUsbError);
    EXPECT_EQ(exitCodeFor(USBD_HOST_STOPPED), kExitFile);
    EXPECT_EQ(exitCodeFor(USBD_HOST_INTERRUPTED), kExitInterrupted);

    // Without -n the data stopping is the normal end, once something came.
    EXPECT_EQ(receiveExitCode(USBD_HOST_TIMEOUT, 10, 0), kExitOk);
    EXPECT_EQ(receiveExitCode(USBD_HOST_TIMEOUT, 0, 0), kExitTimeout);
    // With -n only the limit is success.
    EXPECT_EQ(receiveExitCode(USBD_HOST_OK, 100, 100), kExitOk);
    EXPECT_EQ(receiveExitCode(USBD_HOST_TIMEOUT, 99, 100), kExitTimeout);
    EXPECT_EQ(receiveExitCode(USBD_HOST_GONE, 10, 0), kExitGone);
    EXPECT_EQ(receiveExitCode(USBD_HOST_INTERRUPTED, 10, 0), kExitInterrupted);
}

} // namespace
