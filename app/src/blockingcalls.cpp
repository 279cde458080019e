#include "blockingcalls.h"

#include <signal.h>
#include <time.h>

#include <QDebug>

#include "logging.h"

namespace {

// Does nothing: its only purpose is that SIGUSR1 interrupts a blocking call with EINTR (no
// SA_RESTART) instead of ending the process.
void onInterruptSignal(int)
{
}

} // namespace

void BlockingCalls::installInterruptHandler()
{
    static std::once_flag installed;
    std::call_once(installed, [] {
        struct sigaction action = {};
        action.sa_handler = onInterruptSignal;
        sigemptyset(&action.sa_mask);
        action.sa_flags = 0;
        sigaction(SIGUSR1, &action, nullptr);
    });
}

void BlockingCalls::attach()
{
    // The handler must exist before the thread can be signalled: SIGUSR1's default action
    // would end the process.
    installInterruptHandler();
    sigset_t interruptSet;
    sigemptyset(&interruptSet);
    sigaddset(&interruptSet, SIGUSR1);
    pthread_sigmask(SIG_UNBLOCK, &interruptSet, nullptr);
    std::lock_guard<std::mutex> guard(threadMutex_);
    thread_ = pthread_self();
    recorded_ = true;
}

void BlockingCalls::detach()
{
    std::lock_guard<std::mutex> guard(threadMutex_);
    if (recorded_ && pthread_equal(thread_, pthread_self()))
        recorded_ = false;
}

void BlockingCalls::enter(Kind kind)
{
    kind_.store(kind);
    calls_.fetch_add(1);
}

void BlockingCalls::leave()
{
    calls_.fetch_add(1);
}

void BlockingCalls::kick(Kind kind, const std::function<bool()> &wanted)
{
    const uint64_t call = calls_.load();
    for (int attempt = 0; attempt < kMaxKicks; ++attempt) {
        if ((call & 1) == 0 || calls_.load() != call)
            return; // not in a call, or out of the one it was in: the next one sees the flag
        if ((kind != kAnyCall && kind_.load() != kind) || !wanted())
            return;
        {
            std::lock_guard<std::mutex> guard(threadMutex_);
            if (!recorded_)
                return;
            pthread_kill(thread_, SIGUSR1);
        }
        const timespec pause{0, 1000000};
        nanosleep(&pause, nullptr);
    }
    qCDebug(lcUsbd) << "a blocking call did not end when signalled";
}

namespace transferthread {
namespace {

BlockingCalls transferCalls;
std::atomic<bool> usbIn{true};

} // namespace

BlockingCalls &calls()
{
    return transferCalls;
}

bool usbInEnabled()
{
    return usbIn.load();
}

void setUsbInEnabled(bool enabled)
{
    usbIn.store(enabled);
    if (!enabled)
        transferCalls.kick(BlockingCalls::kUsbInCall, [] { return !usbIn.load(); });
}

} // namespace transferthread
