#include "host.h"

#include "log.h"
#include "paths.h"

#include <usbd/unique_fd.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace usbdemu {

namespace {

constexpr const char kInitialUdcState[] = "not attached";
constexpr const char kInitialSpeed[] = "UNKNOWN";
constexpr const char kInitialMaxPower[] = "0";

bool makeDirs(const std::string &path)
{
    for (size_t pos = 1; pos <= path.size(); ++pos) {
        if (pos != path.size() && path[pos] != '/')
            continue;
        const std::string prefix = path.substr(0, pos);
        if (mkdir(prefix.c_str(), 0755) < 0 && errno != EEXIST) {
            logLine("cannot create %s: %s", prefix.c_str(), strerror(errno));
            return false;
        }
    }
    return true;
}

std::string dirOf(const std::string &path)
{
    return path.substr(0, path.rfind('/'));
}

// The kernel prints attribute values followed by a newline; readers rely on both.
bool replaceFile(const std::string &path, const std::string &value)
{
    const std::string temp = dirOf(path) + "/." + path.substr(path.rfind('/') + 1) + ".new";
    usbd::UniqueFd fd(open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!fd) {
        logLine("cannot write %s: %s", temp.c_str(), strerror(errno));
        return false;
    }
    const std::string text = value + "\n";
    if (write(fd.get(), text.data(), text.size()) != ssize_t(text.size())) {
        logLine("cannot write %s: %s", temp.c_str(), strerror(errno));
        unlink(temp.c_str());
        return false;
    }
    fd.reset();
    if (rename(temp.c_str(), path.c_str()) < 0) {
        logLine("cannot replace %s: %s", path.c_str(), strerror(errno));
        unlink(temp.c_str());
        return false;
    }
    return true;
}

} // namespace

const char *iosStateName(IosState state)
{
    switch (state) {
    case IosState::Mfi:
        return "mfi";
    case IosState::Wifi:
        return "wifi";
    case IosState::None:
        break;
    }
    return "none";
}

bool parseIosState(const std::string &text, IosState &state)
{
    if (text == "none" || text == "0")
        state = IosState::None;
    else if (text == "mfi" || text == "1")
        state = IosState::Mfi;
    else if (text == "wifi" || text == "2")
        state = IosState::Wifi;
    else
        return false;
    return true;
}

bool HostFiles::create(const std::string &udcName)
{
    std::lock_guard<std::mutex> lock(mutex_);
    udcDir_ = std::string(usbd::kUdcClassDir) + udcName;
    values_.udc = udcName;
    if (!makeDirs(udcDir_) || !makeDirs(dirOf(usbd::kMaxPowerPath)) || !makeDirs(kMfiDir))
        return false;
    return store(udcDir_ + "/state", kInitialUdcState, values_.state)
           && store(udcDir_ + "/current_speed", kInitialSpeed, values_.speed)
           && store(usbd::kMaxPowerPath, kInitialMaxPower, values_.maxPower)
           && replaceFile(kMfiLinkStatePath, "0");
}

bool HostFiles::store(const std::string &path, const std::string &value, std::string &member)
{
    if (!replaceFile(path, value))
        return false;
    member = value;
    return true;
}

bool HostFiles::setUdcState(const std::string &text)
{
    std::lock_guard<std::mutex> lock(mutex_);
    return store(udcDir_ + "/state", text, values_.state);
}

bool HostFiles::setSpeed(const std::string &text)
{
    std::lock_guard<std::mutex> lock(mutex_);
    return store(udcDir_ + "/current_speed", text, values_.speed);
}

bool HostFiles::setMaxPower(const std::string &text)
{
    std::lock_guard<std::mutex> lock(mutex_);
    return store(usbd::kMaxPowerPath, text, values_.maxPower);
}

bool HostFiles::setIos(IosState state)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (!replaceFile(kMfiLinkStatePath, std::to_string(int(state))))
        return false;
    values_.ios = state;
    return true;
}

HostFiles::Snapshot HostFiles::snapshot() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return values_;
}

} // namespace usbdemu
