#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "threadsafety.h"

// The transfer thread as the other threads reach it. UsbD makes one and hands it to the queue
// (which runs on that thread and records it), to the USB transport (which brackets its blocking
// calls with UsbInCall) and to the control endpoint's monitor (which says whether the USB
// function can carry data). Signals reach the thread as SIGUSR1, whose handler does nothing and
// is installed without SA_RESTART, so that a blocking call returns EINTR.
//
// Two ways to end a call, for two reasons:
// - A client's interrupt is one signal, without a lock (interrupt()). It ends the call that
//   blocks when it arrives, if any; one that arrives between calls changes nothing.
// - A host that goes away must end the USB IN call in progress and keep later ones from
//   starting until a host enables the function again. One signal is not enough for that (it may
//   land just before the call starts), so the flag comes first and setUsbInEnabled(false) then
//   signals again and again until the thread has left the call it was in. UsbInCall reads the
//   flag after it has marked the call as begun: either it sees the flag, or the signaller sees
//   the call. Every step is sequentially consistent.
class TransferThread {
public:
    // On the transfer thread, before anyone may signal it: installs the handler (once per
    // process) and records the thread. detach() on the same thread before it ends; interrupt()
    // must not be called from then on.
    void attach() EXCLUDES(mutex_);
    void detach() EXCLUDES(mutex_);

    // Any thread, no lock: one SIGUSR1, or nothing before attach().
    void interrupt();

    // Whether the USB function can carry data; true until told otherwise, so that a transport
    // used without the control endpoint's monitor is not held up.
    bool usbInEnabled() const { return usbIn_.load(); }
    // The control endpoint's thread; false also ends the USB IN call in progress.
    void setUsbInEnabled(bool enabled) EXCLUDES(mutex_);

    // Brackets one blocking call on the bulk IN endpoint, made by the transfer thread. The call
    // is made only if allowed().
    class UsbInCall {
    public:
        explicit UsbInCall(TransferThread *thread);
        ~UsbInCall();
        UsbInCall(const UsbInCall &) = delete;
        UsbInCall &operator=(const UsbInCall &) = delete;
        bool allowed() const;

    private:
        TransferThread *thread_;
    };

    // The do-nothing SIGUSR1 handler, installed once per process; other threads that must be
    // interruptible in the same way (tests) call it too.
    static void installInterruptHandler();

private:
    // Signals the thread until it has left the USB IN call it is in, while the function stays
    // disabled. Bounded: a call that ignores signals is given up on after kMaxKicks tries.
    void endUsbInCall() EXCLUDES(mutex_);

    static constexpr int kMaxKicks = 200; // about one attempt per millisecond

    // Written by attach() before recorded_ and interruptible_ are set; read only by whoever has
    // seen one of them set.
    pthread_t thread_{};
    std::atomic<bool> interruptible_{false};
    // The monitor's signals go out under the mutex, so none reaches a thread that has detached.
    usbd::PosixMutex mutex_;
    bool recorded_ GUARDED_BY(mutex_) = false;
    // Odd while the thread is inside a USB IN call; every begin and end adds one.
    std::atomic<uint64_t> usbInCalls_{0};
    std::atomic<bool> usbIn_{true};
};
