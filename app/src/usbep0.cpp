#include "usbep0.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <linux/usb/functionfs.h>

#include <usbd/unique_fd.h>

#include "controller.h"
#include "logging.h"
#include "paths.h"
#include "transferthread.h"

namespace {

constexpr int kMaxEvents = 32;
constexpr size_t kReadLimit = 1024;
static_assert(sizeof(usb_functionfs_event) == 12, "ep0 hands out 12-byte event records");

// Reads at most kReadLimit - 1 bytes of a sysfs/configfs attribute; returns the byte count (0
// when it cannot be opened or read). The text is always terminated within what was read.
size_t readAttribute(const QByteArray &path, char (&buffer)[kReadLimit])
{
    buffer[0] = '\0';
    usbd::UniqueFd fd(::open(path.constData(), O_RDONLY | O_CLOEXEC));
    if (!fd)
        return 0;
    const ssize_t n = ::read(fd.get(), buffer, kReadLimit - 1);
    if (n <= 0)
        return 0;
    buffer[n] = '\0';
    return size_t(n);
}

} // namespace

Ep0EventFilter::Ep0EventFilter() : lastType_(FUNCTIONFS_DISABLE)
{
}

int Ep0EventFilter::accept(quint8 type)
{
    if (type == lastType_)
        return -1;
    lastType_ = type;
    switch (type) {
    case FUNCTIONFS_BIND:
    case FUNCTIONFS_DISABLE:
        return 0;
    case FUNCTIONFS_UNBIND:
    case FUNCTIONFS_ENABLE:
        return 1;
    default:
        return -1;
    }
}

UsbEp0::UsbEp0(int ep0Descriptor, QObject *parent) : QObject(parent), ep0_(ep0Descriptor)
{
}

void UsbEp0::setChargeCurrentMax(int value)
{
    if (chargeCurrentMax_.exchange(value, std::memory_order_relaxed) == value)
        return;
    emit charge_current_maxChanged(value);
}

void UsbEp0::process()
{
    usbd::UniqueFd epoll(::epoll_create1(EPOLL_CLOEXEC));
    if (!epoll) {
        qCDebug(lcUsbd) << "epoll_create1() failed:" << epoll.get();
        return;
    }
    epoll_event registration{};
    registration.events = EPOLLIN;
    registration.data.fd = ep0_;
    const int added = ::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, ep0_, &registration);
    if (added < 0) {
        qCDebug(lcUsbd) << "epoll_ctl() failed:" << added;
        return;
    }

    Ep0EventFilter filter;
    epoll_event events[kMaxEvents];
    for (;;) {
        const int count = ::epoll_wait(epoll.get(), events, kMaxEvents, -1);
        for (int i = 0; i < count; ++i) {
            if (events[i].data.fd != ep0_ || !(events[i].events & EPOLLIN))
                continue;
            // One record per read; further queued events make epoll report ep0 again.
            usb_functionfs_event event;
            const ssize_t n = ::read(ep0_, &event, sizeof event);
            if (n != ssize_t(sizeof event)) {
                qCDebug(lcUsbd) << "failed to read from ep0";
                continue;
            }
            const int link = filter.accept(event.type);
            if (link >= 0)
                handleEvent(event.type, link != 0);
        }
    }
}

void UsbEp0::handleEvent(quint8 type, bool link)
{
    // First of all, before the link type can follow: only ENABLE means a host reads the bulk IN
    // endpoint. After any other event a write there would wait for whichever host comes next and
    // hand it bytes meant for this one, so the write in progress is ended and later ones fail
    // at once until the host enables the function again.
    if (transferThread_ != nullptr)
        transferThread_->setUsbInEnabled(type == FUNCTIONFS_ENABLE);

    link_ = link;

    const QByteArray controller = usbd::firstControllerDir();
    if (controller.isEmpty()) {
        qCDebug(lcUsbd) << "failed to open directoy";
    } else {
        char buffer[kReadLimit];
        const QByteArray statePath = controller + "state";
        // An unreadable state reads as empty, which counts as not configured.
        const size_t stateLength = readAttribute(statePath, buffer);
        constexpr char kConfigured[] = "configured";
        if (stateLength >= sizeof(kConfigured) - 1
            && memcmp(buffer, kConfigured, sizeof(kConfigured) - 1) == 0) {
            if (readAttribute(QByteArray(usbd::kMaxPowerPath), buffer) > 0)
                setChargeCurrentMax(atoi(buffer));
        }
    }

    if (!link_)
        setChargeCurrentMax(0);

    qWarning("usb_link state: %d", link_ ? 1 : 0);
    emit usb_linkChanged(link_);
}
