#pragma once

// The host side of the link as the device sees it in files: the device controller's sysfs
// attributes, the MaxPower attribute of the gadget configuration, and the iOS peer's link state
// that the MFi stand-in library reads. Every file is replaced atomically (write a temporary,
// rename), so a reader never sees half a value.

#include <iosconn_sim.h>

#include <mutex>
#include <string>

namespace usbdemu {

// Where the MFi stand-in library looks for the emulated iOS peer: its link state and its socket.
constexpr const char kMfiDir[] = "/run/mfi";
constexpr const char kMfiLinkStatePath[] = IOSCONN_SIM_LINK_STATE;
constexpr const char kMfiPeerSocketPath[] = IOSCONN_SIM_PEER_SOCKET;

enum class IosState { None = 0, Mfi = 1, Wifi = 2 };
const char *iosStateName(IosState state);
bool parseIosState(const std::string &text, IosState &state);

class HostFiles {
public:
    // Creates the files with their values before any host is attached. Must run inside the
    // emulator's mount namespace, after the sysfs and /run mounts exist.
    bool create(const std::string &udcName);

    bool setUdcState(const std::string &text);
    bool setSpeed(const std::string &text);
    bool setMaxPower(const std::string &text);
    bool setIos(IosState state);

    struct Snapshot {
        std::string udc, state, speed, maxPower;
        IosState ios = IosState::None;
    };
    Snapshot snapshot() const;

private:
    bool store(const std::string &path, const std::string &value, std::string &member);

    mutable std::mutex mutex_;
    std::string udcDir_;
    Snapshot values_;
};

} // namespace usbdemu
