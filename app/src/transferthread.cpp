#include "transferthread.h"

#include <signal.h>
#include <time.h>

#include <mutex>

#include "logging.h"

namespace {

// Does nothing: its only purpose is that SIGUSR1 interrupts a blocking call with EINTR (no
// SA_RESTART) instead of ending the process.
void onInterruptSignal(int)
{
}

} // namespace

void TransferThread::installInterruptHandler()
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

void TransferThread::attach()
{
    // The handler must exist before the thread can be signalled: SIGUSR1's default action
    // would end the process.
    installInterruptHandler();
    sigset_t interruptSet;
    sigemptyset(&interruptSet);
    sigaddset(&interruptSet, SIGUSR1);
    pthread_sigmask(SIG_UNBLOCK, &interruptSet, nullptr);
    thread_ = pthread_self();
    {
        usbd::PosixMutexLock lock(mutex_);
        recorded_ = true;
    }
    interruptible_.store(true);
}

void TransferThread::detach()
{
    interruptible_.store(false);
    usbd::PosixMutexLock lock(mutex_);
    recorded_ = false;
}

void TransferThread::interrupt()
{
    if (interruptible_.load())
        pthread_kill(thread_, SIGUSR1);
}

void TransferThread::setUsbInEnabled(bool enabled)
{
    usbIn_.store(enabled);
    if (!enabled)
        endUsbInCall();
}

void TransferThread::endUsbInCall()
{
    const uint64_t call = usbInCalls_.load();
    for (int attempt = 0; attempt < kMaxKicks; ++attempt) {
        if ((call & 1) == 0 || usbInCalls_.load() != call)
            return; // not in a call, or out of the one it was in: the next one sees the flag
        if (usbIn_.load())
            return; // enabled again: the call may go on
        {
            usbd::PosixMutexLock lock(mutex_);
            if (!recorded_)
                return;
            pthread_kill(thread_, SIGUSR1);
        }
        const timespec pause{0, 1000000};
        nanosleep(&pause, nullptr);
    }
    qCDebug(lcUsbd) << "a USB IN call did not end when signalled";
}

TransferThread::UsbInCall::UsbInCall(TransferThread *thread) : thread_(thread)
{
    if (thread_ != nullptr)
        thread_->usbInCalls_.fetch_add(1);
}

TransferThread::UsbInCall::~UsbInCall()
{
    if (thread_ != nullptr)
        thread_->usbInCalls_.fetch_add(1);
}

bool TransferThread::UsbInCall::allowed() const
{
    return thread_ == nullptr || thread_->usbIn_.load();
}
