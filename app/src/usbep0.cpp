#include "usbep0.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>


#include <usbd/unique_fd.h>

#include "blockingcalls.h"
#include "controller.h"
#include "logging.h"
#include "paths.h"

namespace {

constexpr int kMaxEvents = 32;
constexpr size_t kEventSize = 12;     // struct usb_functionfs_event
constexpr size_t kEventTypeOffset = 8;
constexpr size_t kReadLimit = 1024;

enum EventType : quint8 {
    kBind = 0,
    kUnbind = 1,
    kEnable = 2,
    kDisable = 3,
};

// The kernel's event types map to the link as the function's host sees it; UNBIND counts as up
// and BIND as down.
bool linkForEvent(quint8 type)
{
    return type == kUnbind || type == kEnable;
}

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

UsbEp0::UsbEp0(int ep0Descriptor, QObject *parent) : QObject(parent), ep0_(ep0Descriptor) {}

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

    // A first DISABLE after start-up says nothing new: the link starts down.
    quint8 lastType = kDisable;
    epoll_event events[kMaxEvents];
    for (;;) {
        const int count = ::epoll_wait(epoll.get(), events, kMaxEvents, -1);
        for (int i = 0; i < count; ++i) {
            if (events[i].data.fd != ep0_ || !(events[i].events & EPOLLIN))
                continue;
            // One record per read; further queued events make epoll report ep0 again.
            quint8 record[kEventSize];
            const ssize_t n = ::read(ep0_, record, sizeof(record));
            if (n != ssize_t(kEventSize)) {
                qCDebug(lcUsbd) << "failed to read from ep0";
                continue;
            }
            const quint8 type = record[kEventTypeOffset];
            if (type == lastType)
                continue;
            lastType = type;
            if (type > kDisable)
                continue;
            handleEvent(type);
        }
    }
}

void UsbEp0::handleEvent(quint8 type)
{
    // First of all, before the link type can follow: only ENABLE means a host reads the bulk IN
    // endpoint. After any other event a write there would wait for whichever host comes next and
    // hand it bytes meant for this one, so the write in progress is ended and later ones fail
    // at once until the host enables the function again.
    transferthread::setUsbInEnabled(type == kEnable);

    link_ = linkForEvent(type);

    const QByteArray controller = usbd::firstControllerDir();
    if (controller.isEmpty()) {
        qCDebug(lcUsbd) << "failed to open directoy";
    } else {
        char buffer[kReadLimit];
        const QByteArray statePath = controller + "state";
        // An unreadable state reads as empty, which counts as not configured.
        const size_t stateLength = readAttribute(statePath, buffer);
        constexpr char kConfigured[] = "configured";
        if (stateLength >= sizeof(kConfigured) - 1 &&
            memcmp(buffer, kConfigured, sizeof(kConfigured) - 1) == 0) {
            if (readAttribute(QByteArray(usbd::kMaxPowerPath), buffer) > 0)
                setChargeCurrentMax(atoi(buffer));
        }
    }

    if (!link_)
        setChargeCurrentMax(0);

    qWarning("usb_link state: %d", link_ ? 1 : 0);
    emit usb_linkChanged(link_);
}
