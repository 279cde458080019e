// The minimal servers that the daemon is measured against: what a program must do at the least
// to put the same bytes into the same endpoint for the same requests.
//   --socket PATH: the daemon's socket protocol, one thread per client, each request written
//                  straight to ep3 (memory entries) or handed to the endpoint by physical
//                  address (handle entries, imported per request as the daemon does; mapped
//                  and written where the endpoint has no such request), then answered with the
//                  8-byte response.
//   --dbus NAME:   one D-Bus method, send_data(ay data, y length) on object /bench of the
//                  service NAME, which writes the bytes to ep3 and returns.
// Runs next to the daemon (in the device emulator, or on the real kernel's FunctionFS); the
// benchmark starts and ends it.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QObject>

#include <arvo_hal.h>

#include <usbd/protocol.h>

#include "arvomemshare.h"
#include "endpoint_write.h"
#include "minimal_server.h"

namespace {

int ep3 = -1;
std::mutex halMutex; // the HAL is driven from one thread at a time, as in the daemon
// A stock FunctionFS has no physical-address request (ENOTTY): from the first such answer on,
// handle entries go out from a mapping of the memory, as the daemon then sends them.
std::atomic<bool> physicalTransfers{true};

bool sendMapped(arvo_hal_mem_t memory, std::uint32_t offset, std::uint32_t size)
{
    std::uint8_t *base = nullptr;
    {
        std::lock_guard<std::mutex> guard(halMutex);
        if (arvo_hal_mem_map(memory, &base) != 0)
            return false;
    }
    const bool ok = endpointwrite::writeSegments(ep3, {{base + offset, size}});
    std::lock_guard<std::mutex> guard(halMutex);
    arvo_hal_mem_unmap(memory);
    return ok;
}

bool sendByHandle(std::uint64_t handle, std::uint32_t offset, std::uint32_t size)
{
    arvo_hal_mem_t memory = 0;
    std::uint32_t physical = 0;
    {
        std::lock_guard<std::mutex> guard(halMutex);
        if (arvo_hal_mem_import(ArvoMemShare::ion()->handle(), &memory, handle) != 0)
            return false;
        if (arvo_hal_mem_get_phys_addr(memory, &physical) != 0) {
            arvo_hal_mem_free(memory);
            return false;
        }
    }
    bool ok = false, unsupported = false;
    if (physicalTransfers)
        ok = endpointwrite::writePhysical(ep3, physical + offset, size, &unsupported);
    if (unsupported)
        physicalTransfers = false;
    if (!physicalTransfers)
        ok = sendMapped(memory, offset, size);
    std::lock_guard<std::mutex> guard(halMutex);
    arvo_hal_mem_free(memory);
    return ok;
}

void serveClient(int client)
{
    minimalserver::serve(
        client, [](const std::uint8_t *request, const usbd::SocketRequestEntry &entry) {
            if (entry.type == usbd::kSocketEntryHandle)
                return sendByHandle(entry.handle, entry.offset, entry.size);
            return ::write(ep3, request + entry.offset, entry.size) == ssize_t(entry.size);
        });
    ::close(client);
}

bool startSocketServer(const std::string &path)
{
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    ::unlink(path.c_str());
    if (listener < 0 || ::bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) < 0
        || ::listen(listener, 128) < 0)
        return false;
    std::thread([listener] {
        for (;;) {
            const int client = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (client >= 0)
                std::thread(serveClient, client).detach();
        }
    }).detach();
    return true;
}

} // namespace

class MinimalService : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.korvane.usbdbench")
public slots:
    Q_SCRIPTABLE void send_data(const QByteArray &data, uchar length)
    {
        const ssize_t size = std::min<ssize_t>(data.size(), length);
        if (::write(ep3, data.constData(), size_t(size)) != size)
            std::fprintf(stderr, "e2e_minimal: write to ep3 failed\n");
    }
};

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    std::string socketPath, serviceName;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--socket") == 0)
            socketPath = argv[i + 1];
        else if (std::strcmp(argv[i], "--dbus") == 0)
            serviceName = argv[i + 1];
    }
    ep3 = ::open(usbd::kFfsEp3Path, O_RDWR | O_CLOEXEC);
    if (ep3 < 0) {
        std::fprintf(stderr, "e2e_minimal: cannot open %s\n", usbd::kFfsEp3Path);
        return 1;
    }
    if (!socketPath.empty() && !startSocketServer(socketPath)) {
        std::fprintf(stderr, "e2e_minimal: cannot listen on %s\n", socketPath.c_str());
        return 1;
    }
    MinimalService service;
    if (!serviceName.empty()) {
        QDBusConnection bus = QDBusConnection::systemBus();
        if (!bus.registerObject(QStringLiteral("/bench"), &service,
                                QDBusConnection::ExportScriptableSlots)
            || !bus.registerService(QString::fromStdString(serviceName))) {
            std::fprintf(stderr, "e2e_minimal: cannot offer %s on the bus\n", serviceName.c_str());
            return 1;
        }
    }
    return app.exec();
}

#include "e2e_minimal.moc"
