#include "usbspeedreader.h"

#include <fcntl.h>
#include <unistd.h>

#include <usbd/unique_fd.h>

#include "controller.h"
#include "logging.h"
#include "paths.h"

namespace {

struct SpeedName {
    int speed;
    const char *name;
};

// Tried in this order; the kernel's name for super speed plus starts with "super-speed" and so
// counts as super speed too.
constexpr SpeedName kSpeedNames[] = {
    {0, "UNKNOWN"},    {1, "low-speed"}, {2, "full-speed"},
    {3, "high-speed"}, {4, "wireless"},  {5, "super-speed"},
};
constexpr int kSuperSpeed = 5;
constexpr size_t kReadLimit = 1024;

} // namespace

UsbSpeedReader::UsbSpeedReader(QObject *parent) : QObject(parent)
{
}

void UsbSpeedReader::onUsbLinkChanged(bool status)
{
    if (status)
        updateUsbSpeed();
    else
        setSuperSpeed(false);
}

void UsbSpeedReader::onIosConnStateChanged(IOSConnStateWatcher::State state)
{
    switch (state) {
    case IOSConnStateWatcher::MfiState:
        updateUsbSpeed();
        break;
    case IOSConnStateWatcher::NotConnectedState:
    case IOSConnStateWatcher::WifiState:
        setSuperSpeed(false);
        break;
    default:
        break;
    }
}

void UsbSpeedReader::updateUsbSpeed()
{
    const QByteArray controller = usbd::firstControllerDir();
    if (controller.isEmpty()) {
        qCDebug(lcUsbd) << "failed to open directoy" << usbd::kUdcClassDir;
        setSuperSpeed(false);
        return;
    }

    const QByteArray path = controller + "current_speed";
    usbd::UniqueFd fd(::open(path.constData(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        setSuperSpeed(false);
        return;
    }
    char text[kReadLimit];
    const ssize_t n = ::read(fd.get(), text, sizeof(text));
    if (n <= 0) {
        qWarning() << "failed to read current_speed";
        setSuperSpeed(false);
        return;
    }

    setSuperSpeed(namesSuperSpeed(text, size_t(n)));
}

bool UsbSpeedReader::namesSuperSpeed(const char *text, size_t length)
{
    for (const SpeedName &row : kSpeedNames) {
        const size_t nameLength = strlen(row.name);
        if (length >= nameLength && memcmp(text, row.name, nameLength) == 0)
            return row.speed == kSuperSpeed;
    }
    return false;
}

void UsbSpeedReader::setSuperSpeed(bool value)
{
    if (value == superSpeed_)
        return;
    superSpeed_ = value;
    qCDebug(lcUsbd) << "super_speed changed:" << value;
    emit superSpeedChanged(value);
}
