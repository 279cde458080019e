#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>

// One thread's blocking system calls, and a way for other threads to make them end for good.
//
// A signal sent once is not enough for that: it can land just before the thread enters its call
// (and is then lost). So whoever wants calls ended first sets a flag of its own that the thread
// reads around every blocking call, and then calls kick(), which signals the thread again and
// again until it has left the call it was in. (A client's interrupt is not such a reason: it is
// one signal, and ends only a call that blocks when it arrives.)
//
// The thread brackets each blocking call with enter() and leave(); after enter() it reads the
// flags that may forbid the call, and after leave() it reads them again, whatever the call
// returned. Every step is sequentially consistent, so either the thread sees the flag before its
// call or kick() sees the call and signals it.
class BlockingCalls {
public:
    // What a call is, so that a reason to end calls can spare the others.
    enum Kind : int { kAnyCall = 0, kUsbInCall = 1, kOtherCall = 2 };

    // On the thread itself; installs the do-nothing SIGUSR1 handler (without SA_RESTART) first.
    void attach();
    // On the thread itself, before it ends.
    void detach();

    void enter(Kind kind);
    void leave();

    // Any thread: signals the thread until it has left the call it is in now, if that call is of
    // `kind` (kAnyCall: any) and as long as `wanted()` holds. Returns at once when no such call
    // is in progress. Bounded: a call that ignores signals is given up on after kMaxKicks tries.
    void kick(Kind kind, const std::function<bool()> &wanted);

    // Sets up the process-wide SIGUSR1 handler that does nothing; idempotent.
    static void installInterruptHandler();

private:
    static constexpr int kMaxKicks = 200; // about one attempt per millisecond

    mutable std::mutex threadMutex_; // pthread_kill only while the thread is recorded
    bool recorded_ = false;          // guarded by threadMutex_
    pthread_t thread_{};             // guarded by threadMutex_
    // Odd while the thread is inside a bracketed call; every enter() and leave() adds one.
    std::atomic<uint64_t> calls_{0};
    std::atomic<int> kind_{kAnyCall};
};

// The transfer thread: the one that makes every transport call.
namespace transferthread {

BlockingCalls &calls();

// Whether the USB function can carry data: false from the moment the host disables or unbinds
// the function (or re-binds it) until it enables it again. While false, writes to the bulk IN
// endpoint fail at once instead of waiting for a future host, and a write in progress is ended.
// True at start so that a transport used without the control endpoint's monitor works as before.
bool usbInEnabled();
void setUsbInEnabled(bool enabled);

} // namespace transferthread
