#include "usbd.h"

#include <fcntl.h>
#include <unistd.h>

#include <QLoggingCategory>
#include <QThread>

#include <arvo_hal.h>
#include <ostr/CUsbD.h>

#include "functionfs.h"
#include "iosconn.h"
#include "logging.h"
#include "paths.h"
#include "usbconn.h"
#include "usbdatain.h"
#include "usbdbuffer.h"
#include "usbdbufferlist.h"
#include "usbdsocket.h"
#include "usbep0.h"
#include "usbspeedreader.h"

namespace {

// The HAL's device table for ION memory: the node, the HAL's own attach and detach functions,
// and zero words that end the table.
const void *const kIonDeviceTable[8] = {usbd::kIonDevicePath,
                                        reinterpret_cast<const void *>(&arvo_hal_attach_ion_mem),
                                        reinterpret_cast<const void *>(&arvo_hal_detach_ion_mem),
                                        nullptr,
                                        nullptr,
                                        nullptr,
                                        nullptr,
                                        nullptr};

// Starts a worker on a thread of its own: the thread's started signal runs `entry`, and the
// thread deletes itself once it finishes.
template <typename Worker, typename Entry>
QThread *startWorkerThread(Worker *worker, Entry entry, QObject *threadParent)
{
    auto *thread = new QThread(threadParent);
    worker->moveToThread(thread);
    QObject::connect(thread, &QThread::started, worker, entry);
    QObject::connect(thread, &QThread::finished, thread, &QObject::deleteLater);
    return thread;
}

} // namespace

UsbD::UsbD(QObject *parent) : QObject(parent)
{
    OstrTypes::registerTypes();
    qRegisterMetaType<IOSConnStateWatcher::State>("IOSConnStateWatcher::State");

    iosWatcher_ = new IOSConnStateWatcher(nullptr);
    speedReader_ = new UsbSpeedReader(nullptr);

    const usbd::functionfs::DescriptorsBlob descriptors = usbd::functionfs::descriptorsBlob();

    ep0_.reset(::open(usbd::kFfsEp0Path, O_RDWR));
    if (!ep0_)
        qCDebug(lcUsbd) << "failed to open ep0";

    // The monitor waits on ep0 before the blobs are written, so that no early event is missed.
    ep0Monitor_ = new UsbEp0(ep0_.get(), nullptr);
    ep0Monitor_->setTransferThread(&transferThread_);
    QThread *ep0Thread = startWorkerThread(ep0Monitor_, &UsbEp0::process, nullptr);
    connect(ep0Monitor_, &UsbEp0::usb_linkChanged, this, &UsbD::usbLinkChanged);
    ep0Thread->start();

    connect(speedReader_, &UsbSpeedReader::superSpeedChanged, this, &UsbD::setUsbSuperSpeed);
    connect(ep0Monitor_, &UsbEp0::usb_linkChanged, speedReader_, &UsbSpeedReader::onUsbLinkChanged);
    connect(iosWatcher_, &IOSConnStateWatcher::stateChanged, speedReader_,
            &UsbSpeedReader::onIosConnStateChanged);

    auto *speedThread = new QThread(this);
    speedReader_->moveToThread(speedThread);
    connect(speedThread, &QThread::finished, speedReader_, &QObject::deleteLater);
    connect(
        this, &QObject::destroyed, speedThread,
        [speedThread] {
            speedThread->quit();
            speedThread->wait();
        },
        Qt::DirectConnection);
    speedThread->start();

    if (::write(ep0_.get(), descriptors.data(), descriptors.size()) != ssize_t(descriptors.size()))
        qCDebug(lcUsbd) << "writing descriptors failed";
    const usbd::functionfs::StringsBlob &strings = usbd::functionfs::stringsBlob();
    if (::write(ep0_.get(), strings.data(), strings.size()) != ssize_t(strings.size()))
        qCDebug(lcUsbd) << "writing strings failed";

    ep1_.reset(::open(usbd::kFfsEp1Path, O_RDWR));
    ep3_.reset(::open(usbd::kFfsEp3Path, O_RDWR | O_CLOEXEC));

    const int halResult = arvo_hal_initialize(kIonDeviceTable);
    if (halResult != 0)
        qFatal("arvo_hal_initialize: %d\n", halResult);

    auto *usbConn = new USBConn(ep3_.get(), true, nullptr);
    usbConn->setTransferThread(&transferThread_);
    const QList<Conn *> connections{new IOSConn(nullptr), usbConn};
    dataIn_ = new UsbDataIn(connections);
    dataIn_->setTransferThread(&transferThread_);
    QThread *transferThread = startWorkerThread(dataIn_, &UsbDataIn::process, nullptr);
    connect(this, &UsbD::linkTypeChanged, dataIn_, &UsbDataIn::setLinkType, Qt::DirectConnection);
    transferThread->start();

    connect(iosWatcher_, &IOSConnStateWatcher::stateChanged, this, &UsbD::iosConnChanged);
    QThread *iosThread = startWorkerThread(iosWatcher_, &IOSConnStateWatcher::start, this);
    iosThread->start();

    socket_ = new UsbDSocket(dataIn_);
    QThread *socketThread = startWorkerThread(socket_, &UsbDSocket::process, nullptr);
    socketThread->start();
}

UsbD::~UsbD()
{
    // Only reached if a caller deletes the core; the daemon never does. The watcher's thread is
    // stopped first so that the watcher is not deleted while its timer runs there.
    if (QThread *iosThread = iosWatcher_->thread();
        iosThread && iosThread != QThread::currentThread()) {
        iosThread->quit();
        iosThread->wait();
    }
    delete iosWatcher_;
    arvo_hal_deinitialize();
}

OstrTypes::E_LinkType UsbD::linkType() const
{
    // qDebug() formats its text before it asks whether the line is wanted; this runs on every
    // property read and link change, so ask first.
    if (QLoggingCategory::defaultCategory()->isDebugEnabled())
        qDebug("usbd: connection changed: usb %d, ios %d", usbConnected_ ? 1 : 0, iosState_);
    return linkTypeFor(usbConnected_, iosState_);
}

OstrTypes::E_LinkType UsbD::linkTypeFor(bool usbConnected, int iosState)
{
    if (iosState == IOSConnStateWatcher::MfiState)
        return OstrTypes::LinkTypeMfi;
    if (usbConnected)
        return OstrTypes::LinkTypeUsb;
    if (iosState == IOSConnStateWatcher::WifiState)
        return OstrTypes::LinkTypeWifi;
    return OstrTypes::LinkTypeNone;
}

void UsbD::usbLinkChanged(bool connected)
{
    if (connected == usbConnected_)
        return;
    usbConnected_ = connected;
    emit linkTypeChanged(linkType());
}

void UsbD::iosConnChanged(IOSConnStateWatcher::State state)
{
    if (int(state) == iosState_)
        return;
    iosState_ = int(state);
    emit linkTypeChanged(linkType());
}

void UsbD::setUsbSuperSpeed(bool superSpeed)
{
    if (superSpeed == usbSuperSpeed_)
        return;
    usbSuperSpeed_ = superSpeed;
    emit usbSuperSpeedChanged(superSpeed);
}

void UsbD::open_file(const QString &file_name, int size)
{
    auto *worker = new usbd_worker(ep1_.get(), file_name, size, nullptr);
    auto *thread = new QThread(nullptr);
    worker->moveToThread(thread);
    connect(thread, &QThread::started, worker, &usbd_worker::process);
    // Once the file is complete the thread ends and takes its worker with it.
    connect(worker, &usbd_worker::finished, thread, &QThread::quit);
    connect(thread, &QThread::finished, worker, &QObject::deleteLater);
    connect(thread, &QThread::finished, thread, &QObject::deleteLater);
    thread->start();
}

void UsbD::close_file()
{
}
