// What every benchmark program does alike: read its environment, start the programs it
// measures with their output in a log, and sum its samples up.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

namespace benchutil {

inline std::string env(const char *name)
{
    const char *value = std::getenv(name);
    return value ? value : "";
}

// Starts argv (argv[0] a path) with its stdout, and its stderr too unless keepStderr, going to
// log (truncated first; "/dev/null" to drop it). The pid, or -1.
inline pid_t spawn(const std::vector<std::string> &argv, const char *log, bool keepStderr = false)
{
    const pid_t pid = fork();
    if (pid == 0) {
        const int fd = ::open(log, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        dup2(fd, STDOUT_FILENO);
        if (!keepStderr)
            dup2(fd, STDERR_FILENO);
        std::vector<char *> args;
        for (const std::string &a : argv)
            args.push_back(const_cast<char *>(a.c_str()));
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    return pid;
}

// Ends a program that spawn() started and reaps it.
inline void stop(pid_t pid)
{
    if (pid <= 0)
        return;
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
}

// Runs argv to its end with its stdout dropped (errors still show); its exit status, or -1.
inline int run(const std::vector<std::string> &argv)
{
    const pid_t pid = spawn(argv, "/dev/null", true);
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

template <typename T>
double median(std::vector<T> values)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? double(values[n / 2]) : (double(values[n / 2 - 1]) + double(values[n / 2])) / 2;
}

// The value below which p percent of the samples lie.
template <typename T>
T percentile(std::vector<T> values, double p)
{
    if (values.empty())
        return T();
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, std::size_t(p / 100.0 * double(values.size())))];
}

} // namespace benchutil
