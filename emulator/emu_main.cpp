// usbd-emu: runs a command (normally the daemon) on an emulated USB device: FunctionFS at
// /dev/usb-ffs/bulk, the device controller's sysfs files and the gadget's MaxPower, all in
// private namespaces, with the host side driven by usbd-emuctl.

#include "controlserver.h"
#include "ffs.h"
#include "host.h"
#include "iospeer.h"
#include "log.h"
#include "sandbox.h"

#include <usbd/unique_fd.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

using namespace usbdemu;

namespace {

constexpr int kSetupFailed = 125;
constexpr int kUsageError = 125;
// After SIGINT/SIGTERM the command gets this long to end before everything is killed.
constexpr int kGraceSeconds = 5;
constexpr size_t kMaxDbusConfig = 1 << 20;
constexpr const char kDefaultName[] = "usbd-emu";
constexpr const char kDefaultUdc[] = "emu-udc.0";

// Any process may own any name and call anything, as on a session bus: the bus exists only for
// the processes of this one emulator.
constexpr const char kPermissiveBusConfig[] =
    R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=/run/dbus/system_bus_socket</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
  </policy>
</busconfig>
)";

struct Options {
    std::string name = kDefaultName;
    std::string udc = kDefaultUdc;
    std::string capture;
    bool dbus = false;
    std::string dbusConfig;
    bool verbose = false;
    std::vector<std::string> command;
};

void printUsage(FILE *out)
{
    fprintf(
        out,
        "usage: usbd-emu [options] -- COMMAND [ARGS...]\n"
        "Runs COMMAND in private namespaces on an emulated USB device (FunctionFS at\n"
        "/dev/usb-ffs/bulk, UDC sysfs files, gadget MaxPower); drive the host side with\n"
        "usbd-emuctl.\n\n"
        "  --name NAME         control name (default %s); several emulators may run at once\n"
        "  --udc NAME          device controller directory (default %s)\n"
        "  --capture FILE      write everything the host receives on the first IN endpoint\n"
        "                      (ep3) to FILE (truncated); without it, bytes are only counted\n"
        "  --dbus              run a private dbus-daemon at unix:path=/run/dbus/system_bus_socket\n"
        "  --dbus-config FILE  dbus-daemon configuration to use instead of the permissive one\n"
        "  -v, --verbose       log every transfer\n"
        "  -h, --help          show this text\n\n"
        "Exit status: the command's (128+signal if it was killed); 125 if the emulator\n"
        "could not start, 126/127 if the command could not be run.\n",
        kDefaultName, kDefaultUdc);
}

bool parseOptions(int argc, char **argv, Options &options)
{
    int i = 1;
    auto value = [&](const char *option, std::string &out) {
        if (i + 1 >= argc) {
            fprintf(stderr, "usbd-emu: %s needs a value\n", option);
            return false;
        }
        out = argv[++i];
        return true;
    };
    for (; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--") {
            ++i;
            break;
        }
        if (arg == "-h" || arg == "--help") {
            printUsage(stdout);
            exit(0);
        } else if (arg == "--name") {
            if (!value("--name", options.name))
                return false;
        } else if (arg == "--udc") {
            if (!value("--udc", options.udc))
                return false;
        } else if (arg == "--capture") {
            if (!value("--capture", options.capture))
                return false;
        } else if (arg == "--dbus") {
            options.dbus = true;
        } else if (arg == "--dbus-config") {
            if (!value("--dbus-config", options.dbusConfig))
                return false;
            options.dbus = true;
        } else if (arg == "-v" || arg == "--verbose") {
            options.verbose = true;
        } else if (!arg.empty() && arg[0] == '-') {
            fprintf(stderr, "usbd-emu: unknown option %s (see --help)\n", arg.c_str());
            return false;
        } else {
            break;
        }
    }
    for (; i < argc; ++i)
        options.command.push_back(argv[i]);
    if (options.command.empty()) {
        fprintf(stderr, "usbd-emu: no command given (usage: usbd-emu [options] -- COMMAND)\n");
        return false;
    }
    if (!validEmulatorName(options.name)) {
        fprintf(stderr, "usbd-emu: bad --name %s: use 1-64 of A-Z a-z 0-9 . _ -\n",
                options.name.c_str());
        return false;
    }
    if (options.udc.empty() || options.udc.find('/') != std::string::npos
        || options.udc[0] == '.') {
        fprintf(stderr, "usbd-emu: bad --udc %s\n", options.udc.c_str());
        return false;
    }
    return true;
}

bool readSmallFile(const std::string &path, std::string &out)
{
    usbd::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd)
        return false;
    char buf[65536];
    for (;;) {
        const ssize_t n = read(fd.get(), buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        if (n == 0)
            return true;
        out.append(buf, size_t(n));
        if (out.size() > kMaxDbusConfig) {
            errno = EFBIG;
            return false;
        }
    }
}

// dbus-daemon reads relative <include> and <includedir> paths from the directory of the file
// that names them. The configuration is handed to it as a copy in the emulator's own directory,
// so those paths are made absolute against the original file's directory first.
std::string absoluteIncludes(const std::string &config, const std::string &path)
{
    char resolved[PATH_MAX];
    if (!realpath(path.c_str(), resolved))
        return config;
    std::string directory = resolved;
    directory.erase(directory.rfind('/') + 1);
    static const std::regex include(
        R"((<include(?:dir)?\b[^>]*>)\s*([^<\s][^<]*?)\s*(</include(?:dir)?>))");
    std::string out;
    auto rest = config.cbegin();
    for (std::sregex_iterator it(config.begin(), config.end(), include), end; it != end; ++it) {
        const std::smatch &match = *it;
        out.append(rest, match[0].first);
        const std::string target = match[2].str();
        out += match[1].str() + (target[0] == '/' ? target : directory + target) + match[3].str();
        rest = match[0].second;
    }
    out.append(rest, config.cend());
    return out;
}

bool writeFile(const std::string &path, const std::string &text)
{
    usbd::UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    return fd && write(fd.get(), text.data(), text.size()) == ssize_t(text.size());
}

// Waits for the init to end, turning SIGINT/SIGTERM/SIGHUP into an orderly stop of the command
// and, if it does not stop in time, a kill of the whole namespace.
int waitForInit(pid_t init)
{
    sigset_t set;
    sigemptyset(&set);
    for (int sig : {SIGCHLD, SIGINT, SIGTERM, SIGHUP, SIGQUIT})
        sigaddset(&set, sig);
    time_t killAt = 0;
    for (;;) {
        int status;
        const pid_t done = waitpid(init, &status, WNOHANG);
        if (done == init)
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        if (done < 0 && errno != EINTR) {
            logLine("waitpid() failed: %s", strerror(errno));
            return kSetupFailed;
        }
        if (killAt && time(nullptr) >= killAt) {
            logLine("command still running %d s after the stop request: killing it", kGraceSeconds);
            kill(init, SIGKILL);
            killAt = 0;
        }
        const timespec tick{1, 0};
        siginfo_t info;
        const int sig = sigtimedwait(&set, &info, &tick);
        if (sig <= 0 || sig == SIGCHLD)
            continue;
        if (killAt) {
            kill(init, SIGKILL);
            continue;
        }
        logLine("stopping on signal %d", sig);
        kill(init, SIGTERM); // the init hands it to the command
        killAt = time(nullptr) + kGraceSeconds;
    }
}

} // namespace

int main(int argc, char **argv)
{
    Options options;
    if (!parseOptions(argc, argv, options))
        return kUsageError;
    setVerbose(options.verbose);

    // Signals are taken synchronously by the main thread; every thread started later
    // inherits the mask, so none of them is hit by a signal meant for the emulator.
    signal(SIGCHLD, SIG_DFL);
    signal(SIGPIPE, SIG_IGN);
    sigset_t mask;
    sigemptyset(&mask);
    for (int sig : {SIGCHLD, SIGINT, SIGTERM, SIGHUP, SIGQUIT})
        sigaddset(&mask, sig);
    sigprocmask(SIG_BLOCK, &mask, nullptr);

    // Host paths are resolved before the private /tmp hides them.
    usbd::UniqueFd capture;
    if (!options.capture.empty()) {
        capture.reset(
            open(options.capture.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        if (!capture) {
            logLine("cannot open capture file %s: %s", options.capture.c_str(), strerror(errno));
            return kSetupFailed;
        }
    }
    std::string busConfig = kPermissiveBusConfig;
    if (!options.dbusConfig.empty()) {
        busConfig.clear();
        if (!readSmallFile(options.dbusConfig, busConfig)) {
            logLine("cannot read %s: %s", options.dbusConfig.c_str(), strerror(errno));
            return kSetupFailed;
        }
        busConfig = absoluteIncludes(busConfig, options.dbusConfig);
    }

    FunctionFs ffs;
    HostFiles host;
    IosPeer peer;
    EmulatorInfo info;
    info.name = options.name;
    ControlServer server(ffs, host, peer, info);
    if (!server.listen(options.name))
        return kSetupFailed;

    if (!enterSandbox(options.command[0]) || !host.create(options.udc)
        || !peer.listen(kMfiPeerSocketPath))
        return kSetupFailed;
    const std::string busConfigPath = std::string(kPrivateRunDir) + "/dbus.conf";
    if (options.dbus) {
        if (!writeFile(busConfigPath, busConfig)) {
            logLine("cannot write %s", busConfigPath.c_str());
            return kSetupFailed;
        }
        info.dbusAddress = kDbusAddress;
        info.execEnv = {std::string("DBUS_SYSTEM_BUS_ADDRESS=") + kDbusAddress,
                        std::string("DBUS_SESSION_BUS_ADDRESS=") + kDbusAddress};
    }
    const std::string ffsDir = "/dev/usb-ffs/bulk";
    if (!ffs.mount(ffsDir))
        return kSetupFailed;
    ffs.setCapture(std::move(capture));

    int lifeline[2];
    if (pipe2(lifeline, O_CLOEXEC) < 0) {
        logLine("pipe2() failed: %s", strerror(errno));
        return kSetupFailed;
    }
    InitOptions init;
    init.command = options.command;
    init.env = info.execEnv;
    init.dbusConfig = options.dbus ? busConfigPath : std::string();
    init.closeFds = {ffs.sessionFd(), server.listenFd(), peer.listenFd(), lifeline[1]};
    init.lifeline = lifeline[0];
    const pid_t initPid = startInit(init);
    close(lifeline[0]);
    usbd::UniqueFd lifelineWrite(lifeline[1]); // held until the emulator exits
    if (initPid < 0)
        return kSetupFailed;
    info.initPid = initPid;
    info.initPidFd.reset(int(syscall(SYS_pidfd_open, initPid, 0)));
    logLine("%s: FunctionFS at %s, controller %s, command %s (init pid %d)", options.name.c_str(),
            ffsDir.c_str(), options.udc.c_str(), options.command[0].c_str(), initPid);

    ffs.start();
    peer.start();
    server.start();
    const int status = waitForInit(initPid);
    logLine("command ended with status %d", status);
    ffs.logTotals();
    ffs.stop();
    // Connection threads may still be talking to the model; leave without running destructors
    // under them.
    fflush(stderr);
    _exit(status);
}
