#pragma once

// Serves usbd-emuctl: one thread accepts, one short-lived thread per client connection runs
// its requests one after another (wait-ready may block its own connection, nobody else's).

#include "control.h"
#include "ffs.h"
#include "host.h"
#include "iospeer.h"

#include <usbd/unique_fd.h>

#include <sys/types.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace usbdemu {

struct EmulatorInfo {
    std::string name;
    pid_t initPid = -1;
    usbd::UniqueFd initPidFd;         // lent to usbd-emuctl exec to join the namespaces
    std::vector<std::string> execEnv; // NAME=VALUE set for every command run inside
    std::string dbusAddress;          // empty without --dbus
};

class ControlServer {
public:
    ControlServer(FunctionFs &ffs, HostFiles &host, IosPeer &peer, EmulatorInfo &info);
    ~ControlServer();

    // Binds the socket; false (with the reason logged) when the name is taken or invalid.
    bool listen(const std::string &name);
    int listenFd() const { return listen_.get(); }
    void start();

private:
    void acceptLoop();
    void serve(usbd::UniqueFd conn);
    void handle(Message &request, int conn, std::vector<uint8_t> &pushBuffer);
    bool handleIos(Message &request, int conn);
    std::string statusText();
    std::string statusJson();

    FunctionFs &ffs_;
    HostFiles &host_;
    IosPeer &peer_;
    EmulatorInfo &info_;
    usbd::UniqueFd listen_;
    std::thread acceptThread_;
    std::atomic<int> clients_{0};
};

} // namespace usbdemu
