#include "sandbox.h"

#include "log.h"
#include "paths.h"

#include <usbd/unique_fd.h>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace usbdemu {

namespace {

// Host device nodes the processes inside need; everything else under /dev is private.
const char *const kHostNodes[] = {"null", "zero", "full", "random", "urandom", "tty", "fuse"};

constexpr int kDbusStartTimeoutMs = 10000;
constexpr int kSetupFailed = 125;
constexpr int kCannotExecute = 126;
constexpr int kNotFound = 127;

bool doMount(const char *source, const char *target, const char *type, unsigned long flags,
             const char *data)
{
    if (mount(source, target, type, flags, data) == 0)
        return true;
    logLine("cannot mount %s on %s: %s",
            type     ? type
            : source ? source
                     : "(none)",
            target, strerror(errno));
    return false;
}

bool makeDir(const std::string &path, mode_t mode = 0755)
{
    if (mkdir(path.c_str(), mode) == 0 || errno == EEXIST)
        return true;
    logLine("cannot create %s: %s", path.c_str(), strerror(errno));
    return false;
}

bool makeFile(const std::string &path, mode_t mode)
{
    usbd::UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, mode));
    if (!fd) {
        logLine("cannot create %s: %s", path.c_str(), strerror(errno));
        return false;
    }
    fchmod(fd.get(), mode);
    return true;
}

bool makeLink(const char *target, const std::string &path)
{
    if (symlink(target, path.c_str()) == 0)
        return true;
    logLine("cannot create %s: %s", path.c_str(), strerror(errno));
    return false;
}

bool bindFd(int fd, const std::string &target)
{
    const std::string source = "/proc/self/fd/" + std::to_string(fd);
    return doMount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr);
}

// A writable view of a sysfs directory: an overlay keeps the rest of it visible; where overlay
// cannot take sysfs as its lower layer, a tmpfs hides the directory's other entries instead.
bool coverSysDir(const std::string &dir, const std::string &name)
{
    const std::string base = std::string(kPrivateRunDir) + "/" + name;
    if (!makeDir(base) || !makeDir(base + "/upper") || !makeDir(base + "/work"))
        return false;
    const std::string options =
        "lowerdir=" + dir + ",upperdir=" + base + "/upper,workdir=" + base + "/work";
    if (mount("overlay", dir.c_str(), "overlay", 0, options.c_str()) == 0)
        return true;
    logVerbose("overlay on %s failed (%s), using a tmpfs", dir.c_str(), strerror(errno));
    return doMount("tmpfs", dir.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755");
}

// A private, empty directory at `path` (inside a covered sysfs directory), so that only the
// emulator's entries are listed there even on a machine with real gadget support.
bool privateSysSubdir(const std::string &path)
{
    return makeDir(path)
           && doMount("tmpfs", path.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755");
}

// The first-level directory of the host's /tmp that holds `path` ("/tmp/ci" for
// "/tmp/ci/src/build"), or "" when it lies elsewhere. The whole tree is kept, not only the
// directory itself: a program built there finds its libraries and helpers beside it.
std::string tmpTreeOf(const std::string &path)
{
    char *real = realpath(path.c_str(), nullptr);
    if (!real)
        return std::string();
    const std::string resolved = real;
    free(real);
    const std::string prefix = "/tmp/";
    if (resolved.compare(0, prefix.size(), prefix) != 0 || resolved.size() == prefix.size())
        return std::string();
    return resolved.substr(0, resolved.find('/', prefix.size()));
}

// Opens the trees of the host's /tmp that the command needs, before the private /tmp hides
// them: the working directory's and the command's own.
std::vector<std::pair<std::string, usbd::UniqueFd>> openTmpTrees(const std::string &command)
{
    std::vector<std::string> trees;
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof cwd))
        trees.push_back(tmpTreeOf(cwd));
    if (command.find('/') != std::string::npos)
        trees.push_back(tmpTreeOf(command));
    std::vector<std::pair<std::string, usbd::UniqueFd>> opened;
    for (const std::string &tree : trees) {
        if (tree.empty() || (!opened.empty() && opened.front().first == tree))
            continue;
        usbd::UniqueFd fd(open(tree.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!fd) {
            logLine("cannot keep %s visible inside: %s", tree.c_str(), strerror(errno));
            continue;
        }
        opened.emplace_back(tree, std::move(fd));
    }
    return opened;
}

[[noreturn]] void execCommand(const std::vector<std::string> &command)
{
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGPIPE, SIG_DFL);
    std::vector<char *> argv;
    for (const std::string &arg : command)
        argv.push_back(const_cast<char *>(arg.c_str()));
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    const int error = errno;
    logLine("cannot run %s: %s", argv[0], strerror(error));
    _exit(error == ENOENT ? kNotFound : kCannotExecute);
}

pid_t spawn(const std::vector<std::string> &command)
{
    const pid_t pid = fork();
    if (pid == 0)
        execCommand(command);
    if (pid < 0)
        logLine("fork() failed: %s", strerror(errno));
    return pid;
}

bool socketAccepts(const char *path)
{
    usbd::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path, sizeof addr.sun_path - 1);
    return fd && connect(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
}

bool startBus(const std::string &config, pid_t &busPid)
{
    busPid = spawn({"dbus-daemon", "--nofork", "--nopidfile", "--config-file=" + config,
                    std::string("--address=") + kDbusAddress});
    if (busPid < 0)
        return false;
    for (int waited = 0; waited < kDbusStartTimeoutMs; waited += 10) {
        if (socketAccepts(kDbusSocketPath))
            return true;
        int status;
        if (waitpid(busPid, &status, WNOHANG) == busPid) {
            logLine("dbus-daemon exited before accepting connections");
            return false;
        }
        const timespec tick{0, 10 * 1000 * 1000};
        nanosleep(&tick, nullptr);
    }
    logLine("dbus-daemon did not accept connections within %d ms", kDbusStartTimeoutMs);
    return false;
}

int exitCodeOf(int status)
{
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    return kSetupFailed;
}

[[noreturn]] void runInit(const InitOptions &options)
{
    // Whatever way the emulator ends, SIGKILL included, its init goes too, and with pid 1 gone
    // the kernel ends every process of the namespace.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    pollfd lifeline{options.lifeline, POLLIN, 0};
    if (poll(&lifeline, 1, 0) != 0)
        _exit(kSetupFailed); // the emulator died before the line above took effect
    for (int fd : options.closeFds)
        close(fd);
    prctl(PR_SET_NAME, "usbd-emu-init");

    if (!doMount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr))
        _exit(kSetupFailed);
    for (const std::string &assignment : options.env)
        putenv(const_cast<char *>(assignment.c_str()));

    pid_t busPid = -1;
    if (!options.dbusConfig.empty() && !startBus(options.dbusConfig, busPid))
        _exit(kSetupFailed);

    const pid_t commandPid = spawn(options.command);
    if (commandPid < 0)
        _exit(kSetupFailed);

    sigset_t set;
    sigemptyset(&set);
    for (int sig : {SIGCHLD, SIGINT, SIGTERM, SIGHUP, SIGQUIT})
        sigaddset(&set, sig);
    for (;;) {
        siginfo_t info;
        const int sig = sigwaitinfo(&set, &info);
        if (sig < 0)
            continue;
        if (sig != SIGCHLD) {
            kill(commandPid, sig);
            continue;
        }
        // Reap everything: orphans of the namespace end up here.
        for (;;) {
            int status;
            const pid_t pid = waitpid(-1, &status, WNOHANG);
            if (pid <= 0)
                break;
            if (pid == commandPid)
                _exit(exitCodeOf(status));
            if (pid == busPid)
                logLine("dbus-daemon exited (status %d)", exitCodeOf(status));
        }
    }
}

} // namespace

bool enterSandbox(const std::string &command)
{
    if (unshare(CLONE_NEWNS) < 0) {
        logLine("cannot create a mount namespace: %s", strerror(errno));
        return false;
    }
    // Nothing mounted from here on may reach the host.
    if (!doMount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr))
        return false;

    // Hold on to the host's nodes before /dev is covered.
    std::vector<std::pair<std::string, usbd::UniqueFd>> nodes;
    for (const char *name : kHostNodes) {
        const std::string path = std::string("/dev/") + name;
        usbd::UniqueFd fd(open(path.c_str(), O_PATH | O_CLOEXEC));
        if (fd)
            nodes.emplace_back(name, std::move(fd));
        else
            logVerbose("host has no %s: %s", path.c_str(), strerror(errno));
    }
    usbd::UniqueFd shm(open("/dev/shm", O_PATH | O_DIRECTORY | O_CLOEXEC));
    const auto tmpTrees = openTmpTrees(command);

    if (!doMount("tmpfs", "/tmp", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777")
        || !doMount("tmpfs", "/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755")
        || !makeDir(kPrivateRunDir, 0700) || !makeDir(kDbusSocketDir))
        return false;
    // A bind of the path itself would find the new, empty /tmp; the descriptor still names the
    // host's directory.
    for (const auto &tree : tmpTrees) {
        if (!makeDir(tree.first) || !bindFd(tree.second.get(), tree.first))
            return false;
        logVerbose("%s of the host's /tmp is visible inside", tree.first.c_str());
    }

    if (!doMount("tmpfs", "/dev", "tmpfs", MS_NOSUID, "mode=0755"))
        return false;
    for (auto &node : nodes)
        if (!makeFile("/dev/" + node.first, 0666)
            || !bindFd(node.second.get(), "/dev/" + node.first))
            return false;
    if (shm && (!makeDir("/dev/shm", 01777) || !bindFd(shm.get(), "/dev/shm")))
        return false;
    if (!makeDir("/dev/pts")
        || !doMount("devpts", "/dev/pts", "devpts", MS_NOSUID | MS_NOEXEC,
                    "newinstance,ptmxmode=0666,mode=0620")
        || !makeLink("pts/ptmx", "/dev/ptmx") || !makeLink("/proc/self/fd", "/dev/fd")
        || !makeLink("/proc/self/fd/0", "/dev/stdin") || !makeLink("/proc/self/fd/1", "/dev/stdout")
        || !makeLink("/proc/self/fd/2", "/dev/stderr"))
        return false;
    // The HAL stand-in only checks that the ION node exists.
    if (!makeFile(usbd::kIonDevicePath, 0666) || !makeDir("/dev/usb-ffs")
        || !makeDir("/dev/usb-ffs/bulk"))
        return false;

    const std::string udcDir = std::string(usbd::kUdcClassDir);
    const std::string configDir = "/sys/kernel/config";
    return coverSysDir("/sys/class", "sys-class")
           && privateSysSubdir(udcDir.substr(0, udcDir.size() - 1))
           && coverSysDir("/sys/kernel", "sys-kernel") && privateSysSubdir(configDir);
}

pid_t startInit(const InitOptions &options)
{
    // A fork into a new pid namespace (pid 1 there) and a nested mount namespace, where a /proc
    // that shows only the namespace's processes can be mounted without touching the emulator's.
    const long pid = syscall(SYS_clone, CLONE_NEWPID | CLONE_NEWNS | SIGCHLD, nullptr, nullptr,
                             nullptr, nullptr);
    if (pid == 0)
        runInit(options);
    if (pid < 0)
        logLine("cannot create the pid namespace: %s", strerror(errno));
    return pid_t(pid);
}

} // namespace usbdemu
