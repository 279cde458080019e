// usbd-emuctl: the host side of a running usbd-emu, and a way into its namespaces.

#include "control.h"

#include <usbd/unique_fd.h>

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using namespace usbdemu;

namespace {

// Exit codes, distinct so that scripts can tell the failures apart.
constexpr int kOk = 0;
constexpr int kRefused = 1;    // the emulator refused the request
constexpr int kUsage = 2;      // bad command line
constexpr int kNotRunning = 3; // no emulator of that name
constexpr int kTimeout = 4;    // wait-ready timed out
constexpr int kIoError = 5;    // the control channel or a local file failed
constexpr int kExecFailed = 125;

constexpr double kDefaultWaitSeconds = 30;

pid_t gChild = -1;

void printUsage(FILE *out)
{
    fputs(
        "usage: usbd-emuctl [--name NAME] COMMAND [ARGS]\n"
        "Controls the running usbd-emu called NAME (default usbd-emu).\n\n"
        "  status [--json]              function, endpoints, controller files, counters\n"
        "  wait-ready [--timeout SEC]   wait until descriptors and strings are accepted (30 s)\n"
        "  plug [--speed S] [--maxpower N]\n"
        "                               attach a host: speed (super-speed) and MaxPower (500),\n"
        "                               state \"configured\", then BIND and ENABLE\n"
        "  unplug                       DISABLE; state \"not attached\", speed \"UNKNOWN\"\n"
        "  event TYPE [SETUP]           queue bind|unbind|enable|disable|setup|suspend|resume or\n"
        "                               a number 0-255; SETUP: 16 hex digits (8 request bytes)\n"
        "  udc-state TEXT | speed TEXT | maxpower N\n"
        "                               set one controller file\n"
        "  ios none|mfi|wifi            the emulated iOS peer's link state\n"
        "  stall | release [--ep epN]   hold / let go the host's side of an IN endpoint (ep3)\n"
        "  short N [--ep epN]           the next write system call takes only N bytes\n"
        "  ep1-push FILE|- [--ep epN]   the host sends the file's (or stdin's) bytes on ep1\n"
        "  ep1-eof [--ep epN]           the next read on ep1 past the queued bytes returns 0\n"
        "  capture FILE                 capture the IN endpoint (ep3) into FILE (truncated)\n"
        "  capture-off                  count and discard the host's bytes\n"
        "  ios-log [--json]             frames, records and requests the iOS peer received\n"
        "  ios-fail N                   the iOS peer fails the next N sends\n"
        "  ios-partial N                the next frame takes only N payload bytes\n"
        "  ios-block | ios-release      hold / give the iOS peer's answers\n"
        "  ios-reset                    forget what the iOS peer received\n"
        "  ios-capture FILE             append each request the iOS peer completes to FILE\n"
        "  ios-capture-off              stop that\n"
        "  exec -- CMD [ARGS]           run CMD inside the emulator's namespaces\n\n"
        "Exit status: 0 done, 1 refused, 2 usage, 3 no such emulator, 4 timeout, 5 I/O error;\n"
        "exec passes on CMD's status (125 if it could not be started).\n",
        out);
}

int fail(int code, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
int fail(int code, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    fputs("usbd-emuctl: ", stderr);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    va_end(ap);
    return code;
}

class Client {
public:
    explicit Client(std::string name) : name_(std::move(name)) {}

    int connect(bool quiet = false)
    {
        sock_.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        sockaddr_un addr;
        const socklen_t len = controlAddress(name_, addr);
        if (!sock_ || ::connect(sock_.get(), reinterpret_cast<sockaddr *>(&addr), len) < 0) {
            if (errno == ECONNREFUSED || errno == ENOENT)
                return quiet ? kNotRunning
                             : fail(kNotRunning, "no emulator named %s is running", name_.c_str());
            return fail(kIoError, "cannot reach emulator %s: %s", name_.c_str(), strerror(errno));
        }
        return kOk;
    }

    // Sends one request and waits for its reply; returns an exit code.
    int call(const std::vector<std::string> &args, Message &reply, const void *payload = nullptr,
             size_t size = 0, int fd = -1)
    {
        if (!sendMessage(sock_.get(), args, payload, size, fd))
            return fail(kIoError, "cannot send to emulator %s: %s", name_.c_str(), strerror(errno));
        const int r = receiveMessage(sock_.get(), reply);
        if (r == 0)
            return fail(kIoError, "emulator %s went away", name_.c_str());
        if (r < 0 || reply.args.size() < 2)
            return fail(kIoError, "bad reply from emulator %s", name_.c_str());
        const std::string &kind = reply.args[0];
        if (kind == "ok")
            return kOk;
        if (kind == "timeout")
            return fail(kTimeout, "%s", reply.args[1].c_str());
        if (kind == "usage")
            return fail(kUsage, "%s", reply.args[1].c_str());
        return fail(kRefused, "%s", reply.args[1].c_str());
    }

    int simple(const std::vector<std::string> &args)
    {
        Message reply;
        const int code = call(args, reply);
        if (code == kOk && !reply.args[1].empty()) {
            fputs(reply.args[1].c_str(), stdout);
            if (reply.args[1].back() != '\n')
                fputc('\n', stdout);
        }
        return code;
    }

private:
    std::string name_;
    usbd::UniqueFd sock_;
};

int push(Client &client, const std::string &source, const std::vector<std::string> &extra)
{
    usbd::UniqueFd owned;
    int fd = STDIN_FILENO;
    if (source != "-") {
        owned.reset(open(source.c_str(), O_RDONLY | O_CLOEXEC));
        if (!owned)
            return fail(kIoError, "cannot open %s: %s", source.c_str(), strerror(errno));
        fd = owned.get();
    }
    // The bytes go over in parts but are queued for the device as one push, so a reader never
    // sees half of what one command sent.
    std::vector<uint8_t> chunk(kPushChunk);
    std::vector<uint8_t> next(kPushChunk);
    size_t have = 0;
    bool eof = false;
    auto fill = [&](std::vector<uint8_t> &buf, size_t &got) {
        got = 0;
        while (got < buf.size()) {
            const ssize_t n = read(fd, buf.data() + got, buf.size() - got);
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0)
                return false;
            if (n == 0) {
                eof = true;
                break;
            }
            got += size_t(n);
        }
        return true;
    };
    if (!fill(chunk, have))
        return fail(kIoError, "cannot read %s: %s", source.c_str(), strerror(errno));
    for (;;) {
        size_t nextHave = 0;
        if (!eof && !fill(next, nextHave))
            return fail(kIoError, "cannot read %s: %s", source.c_str(), strerror(errno));
        const bool last = eof && nextHave == 0;
        std::vector<std::string> args = {"ep1-push", last ? "last" : "more"};
        args.insert(args.end(), extra.begin(), extra.end());
        Message reply;
        if (const int code = client.call(args, reply, chunk.data(), have); code != kOk)
            return code;
        if (last)
            return kOk;
        chunk.swap(next);
        have = nextHave;
    }
}

void forwardSignal(int sig)
{
    if (gChild > 0)
        kill(gChild, sig);
}

int execInside(Client &client, const std::vector<std::string> &command)
{
    Message reply;
    if (const int code = client.call({"exec-info"}, reply); code != kOk)
        return code;
    if (!reply.fd)
        return fail(kExecFailed, "the emulator did not lend its namespaces");
    char cwd[4096];
    const bool haveCwd = getcwd(cwd, sizeof cwd) != nullptr;
    // Joining through the init's pidfd takes its mount and pid namespaces in one step; the pid
    // namespace applies to the child forked below.
    if (setns(reply.fd.get(), CLONE_NEWNS | CLONE_NEWPID) < 0)
        return fail(kExecFailed, "cannot enter the emulator's namespaces: %s", strerror(errno));
    if (!haveCwd || chdir(cwd) < 0)
        (void)!chdir("/");
    for (size_t i = 2; i < reply.args.size(); ++i)
        putenv(const_cast<char *>(reply.args[i].c_str()));

    gChild = fork();
    if (gChild < 0)
        return fail(kExecFailed, "fork() failed: %s", strerror(errno));
    if (gChild == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        std::vector<char *> argv;
        for (const std::string &arg : command)
            argv.push_back(const_cast<char *>(arg.c_str()));
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        fprintf(stderr, "usbd-emuctl: cannot run %s: %s\n", argv[0], strerror(errno));
        _exit(errno == ENOENT ? 127 : 126);
    }
    struct sigaction sa {};
    sa.sa_handler = forwardSignal;
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
        sigaction(sig, &sa, nullptr);
    int status = 0;
    while (waitpid(gChild, &status, 0) < 0)
        if (errno != EINTR)
            return fail(kExecFailed, "waitpid() failed: %s", strerror(errno));
    // This process now creates its children in the emulator's pid namespace; exit handlers
    // that start helper threads (LeakSanitizer's, in sanitizer builds) would hang there.
    fflush(stdout);
    _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
}

} // namespace

int main(int argc, char **argv)
{
    std::string name = "usbd-emu";
    int i = 1;
    for (; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            printUsage(stdout);
            return kOk;
        }
        if (arg == "--name") {
            if (i + 1 >= argc)
                return fail(kUsage, "--name needs a value");
            name = argv[++i];
            continue;
        }
        break;
    }
    if (i >= argc) {
        printUsage(stderr);
        return kUsage;
    }
    if (!validEmulatorName(name))
        return fail(kUsage, "bad emulator name %s", name.c_str());
    const std::string cmd = argv[i++];
    std::vector<std::string> args(argv + i, argv + argc);
    signal(SIGPIPE, SIG_IGN);

    static const char *const kPassThrough[] = {
        "status",    "plug",        "unplug",      "event",     "udc-state",
        "speed",     "maxpower",    "ios",         "stall",     "release",
        "short",     "ep1-eof",     "capture-off", "ios-fail",  "ios-partial",
        "ios-block", "ios-release", "ios-log",     "ios-reset", "ios-capture-off"};
    bool passThrough = false;
    for (const char *known : kPassThrough)
        passThrough = passThrough || cmd == known;
    if (!passThrough && cmd != "wait-ready" && cmd != "ep1-push" && cmd != "capture"
        && cmd != "ios-capture" && cmd != "exec")
        return fail(kUsage, "unknown command %s (see --help)", cmd.c_str());

    Client client(name);
    if (cmd == "wait-ready") {
        // An emulator started in the background a moment ago may not listen yet.
        for (int tries = 0; tries < 100 && client.connect(true) == kNotRunning; ++tries)
            usleep(50 * 1000);
    }
    if (const int code = client.connect(); code != kOk)
        return code;

    if (passThrough) {
        std::vector<std::string> request = {cmd};
        request.insert(request.end(), args.begin(), args.end());
        return client.simple(request);
    }
    if (cmd == "wait-ready") {
        double seconds = kDefaultWaitSeconds;
        if (args.size() == 2 && args[0] == "--timeout") {
            char *end = nullptr;
            seconds = strtod(args[1].c_str(), &end);
            if (!end || *end || seconds < 0 || seconds > 86400)
                return fail(kUsage, "bad --timeout %s", args[1].c_str());
        } else if (!args.empty()) {
            return fail(kUsage, "wait-ready [--timeout SEC]");
        }
        return client.simple({"wait-ready", std::to_string(long(seconds * 1000))});
    }
    if (cmd == "ep1-push") {
        if (args.empty())
            return fail(kUsage, "ep1-push FILE|- [--ep epN]");
        return push(client, args[0], std::vector<std::string>(args.begin() + 1, args.end()));
    }
    if (cmd == "capture" || cmd == "ios-capture") {
        if (args.size() != 1)
            return fail(kUsage, "%s FILE", cmd.c_str());
        // Opened here: the emulator's /tmp is private, so only this side sees the caller's path.
        usbd::UniqueFd fd(open(args[0].c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        if (!fd)
            return fail(kIoError, "cannot open %s: %s", args[0].c_str(), strerror(errno));
        Message reply;
        return client.call({cmd}, reply, nullptr, 0, fd.get());
    }
    // exec
    if (!args.empty() && args[0] == "--")
        args.erase(args.begin());
    if (args.empty())
        return fail(kUsage, "exec -- CMD [ARGS]");
    return execInside(client, args);
}
