#include "test_bus.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include <usbd/unique_fd.h>

namespace {

constexpr int kStartTimeoutMs = 10000;

bool readLine(int fd, std::string *line)
{
    char c;
    while (true) {
        pollfd pfd{fd, POLLIN, 0};
        const int ready = ::poll(&pfd, 1, kStartTimeoutMs);
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            return false;
        const ssize_t n = ::read(fd, &c, 1);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        if (c == '\n')
            return true;
        line->push_back(c);
    }
}

} // namespace

bool TestBus::start()
{
    char dirTemplate[] = "/tmp/usbd-test-bus-XXXXXX";
    if (!::mkdtemp(dirTemplate)) {
        std::perror("mkdtemp");
        return false;
    }
    dir_ = dirTemplate;
    const std::string config = dir_ + "/bus.conf";
    {
        std::ofstream out(config);
        out << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
               " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
               "<busconfig>\n"
               "  <type>session</type>\n"
               "  <listen>unix:path="
            << dir_ << "/bus</listen>\n"
                       "  <auth>EXTERNAL</auth>\n"
                       "  <policy context=\"default\">\n"
                       "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
                       "    <allow eavesdrop=\"true\"/>\n"
                       "    <allow own=\"*\"/>\n"
                       "  </policy>\n"
                       "</busconfig>\n";
        if (!out) {
            std::fprintf(stderr, "cannot write %s\n", config.c_str());
            return false;
        }
    }

    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
        std::perror("pipe2");
        return false;
    }
    usbd::UniqueFd readEnd(pipeFds[0]);
    usbd::UniqueFd writeEnd(pipeFds[1]);
    const std::string configArg = "--config-file=" + config;
    pid_ = ::fork();
    if (pid_ < 0) {
        std::perror("fork");
        return false;
    }
    if (pid_ == 0) {
        // A test that crashes must not leave its bus running.
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        ::dup2(writeEnd.get(), STDOUT_FILENO);
        // It complains about resource limits it may not raise here; only its address matters.
        const int devNull = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (devNull >= 0)
            ::dup2(devNull, STDERR_FILENO);
        ::execlp("dbus-daemon", "dbus-daemon", configArg.c_str(), "--print-address", "--nofork",
                 "--nopidfile", static_cast<char *>(nullptr));
        std::perror("exec dbus-daemon");
        ::_exit(127);
    }
    writeEnd.reset();
    if (!readLine(readEnd.get(), &address_) || address_.empty()) {
        std::fprintf(stderr, "dbus-daemon did not report its address\n");
        stop();
        return false;
    }
    return true;
}

void TestBus::stop()
{
    if (pid_ > 0) {
        ::kill(pid_, SIGTERM);
        int status = 0;
        while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        pid_ = -1;
    }
    if (!dir_.empty()) {
        ::unlink((dir_ + "/bus").c_str());
        ::unlink((dir_ + "/bus.conf").c_str());
        ::rmdir(dir_.c_str());
        dir_.clear();
    }
}
