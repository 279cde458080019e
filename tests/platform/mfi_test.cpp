#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <string>
#include <thread>

#include <libiosconn.h>

namespace {

constexpr int kSkipped = 77;
const char kStateDir[] = "/run/mfi";
const char kStatePath[] = "/run/mfi/link-state";

void writeState(const std::string &content)
{
    // Written aside and renamed into place, as the emulated peer does.
    const std::string temp = std::string(kStatePath) + ".new";
    FILE *file = std::fopen(temp.c_str(), "w");
    if (!file)
        return;
    std::fwrite(content.data(), 1, content.size(), file);
    std::fclose(file);
    std::rename(temp.c_str(), kStatePath);
}

// Runs in a child with a private /run; returns the failures as text, one per line.
std::string runChecks()
{
    std::string failures;
    auto expect = [&failures](const char *what, int actual, int expected) {
        if (actual != expected)
            failures += std::string(what) + ": got " + std::to_string(actual) + ", want " +
                        std::to_string(expected) + "\n";
    };

    expect("init", iosconn_init(), 0);
    expect("start", iosconn_start(22351), 0);
    expect("no state file", iosconn_isconnect(1), IOSCONN_NOT_CONNECTED);
    ::mkdir(kStateDir, 0755);
    expect("no state file in the folder", iosconn_isconnect(1), IOSCONN_NOT_CONNECTED);

    const struct {
        const char *content;
        int expected;
    } cases[] = {
        {"0\n", 0},  {"1\n", 1}, {"2\n", 2}, {"2", 2},
        {"7\n", 7},  // passed through: the daemon stores whatever number comes
        {"", 0},     {"\n", 0},  {"x\n", 0}, {"1\n2\n", 0}, {" 1\n", 0},
        {"99999999999999999999\n", 0},
    };
    for (const auto &c : cases) {
        writeState(c.content);
        expect((std::string("content '") + c.content + "'").c_str(), iosconn_isconnect(1),
               c.expected);
    }
    writeState("1\n");
    expect("another link", iosconn_isconnect(2), IOSCONN_NOT_CONNECTED);
    expect("sends are not connected",
           iosconn_send_with_header(22351, "h", 1, "p", 1, 1) < 0 &&
               iosconn_send_file(22351, "r", 10) < 0 && iosconn_send_shm(22351, "r", 10) < 0,
           1);

    ::unlink(kStatePath);
    ::mkdir(kStatePath, 0755);
    expect("state path is a folder", iosconn_isconnect(1), IOSCONN_NOT_CONNECTED);
    ::rmdir(kStatePath);

    // A poll racing the peer's updates and a sending thread sees only whole states.
    writeState("1\n");
    std::atomic<bool> stop{false};
    std::thread writer([&stop] {
        for (int i = 0; i < 2000 && !stop; ++i)
            writeState(i % 2 ? "1\n" : "2\n");
        stop = true;
    });
    std::thread sender([&stop] {
        while (!stop)
            iosconn_send_with_header(22351, "h", 1, "p", 1, 1);
    });
    int torn = 0;
    while (!stop) {
        const int state = iosconn_isconnect(1);
        torn += state != 1 && state != 2;
    }
    writer.join();
    sender.join();
    expect("torn reads", torn, 0);
    return failures;
}

TEST(MfiLink, LinkStateFollowsThePeerFile)
{
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(fds[0]);
        // The state file has a fixed path: give the child a /run of its own so the machine's
        // is never touched.
        if (::unshare(CLONE_NEWNS) != 0 ||
            ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("tmpfs", "/run", "tmpfs", 0, "size=1m") != 0)
            ::_exit(kSkipped);
        const std::string failures = runChecks();
        if (::write(fds[1], failures.data(), failures.size()) < 0)
            ::_exit(2);
        ::_exit(0);
    }
    ::close(fds[1]);
    std::string failures;
    char buffer[512];
    ssize_t n;
    while ((n = ::read(fds[0], buffer, sizeof(buffer))) > 0 || (n < 0 && errno == EINTR)) {
        if (n > 0)
            failures.append(buffer, size_t(n));
    }
    ::close(fds[0]);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == kSkipped)
        GTEST_SKIP() << "needs a private mount namespace (root)";
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(failures, "");
}

} // namespace
