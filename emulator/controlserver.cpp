#include "controlserver.h"

#include "log.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>

namespace usbdemu {

namespace {

constexpr int kMaxClients = 16;
constexpr const char kDefaultPlugSpeed[] = "super-speed";
constexpr const char kDefaultPlugMaxPower[] = "500";
constexpr size_t kMaxValueText = 64;
constexpr long kMaxWaitMs = 24L * 3600 * 1000;

const char *boolText(bool value)
{
    return value ? "true" : "false";
}

// Values end up as one line of a sysfs-like file.
bool validValue(const std::string &text)
{
    if (text.empty() || text.size() > kMaxValueText)
        return false;
    for (unsigned char c : text)
        if (c < 0x20 || c == 0x7f)
            return false;
    return true;
}

bool validNumber(const std::string &text, long max, long &value)
{
    if (text.empty() || text.size() > 10
        || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    // Ten digits fit in long long everywhere, not in a 32-bit long.
    const long long parsed = std::stoll(text);
    if (parsed > max)
        return false;
    value = long(parsed);
    return true;
}

bool parseHex8(const std::string &text, uint8_t out[8])
{
    if (text.size() != 16 || text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        return false;
    for (int i = 0; i < 8; ++i)
        out[i] = uint8_t(std::stoul(text.substr(size_t(2 * i), 2), nullptr, 16));
    return true;
}

// Splits "--ep FILE" off an argument list; the rest stays in order.
bool takeEpOption(std::vector<std::string> &args, std::string &file)
{
    for (size_t i = 1; i < args.size(); ++i) {
        if (args[i] != "--ep")
            continue;
        if (i + 1 >= args.size())
            return false;
        file = args[i + 1];
        if (file.rfind("ep", 0) != 0)
            file = "ep" + file;
        args.erase(args.begin() + long(i), args.begin() + long(i) + 2);
        return true;
    }
    return true;
}

} // namespace

ControlServer::ControlServer(FunctionFs &ffs, HostFiles &host, IosPeer &peer, EmulatorInfo &info)
    : ffs_(ffs),
      host_(host),
      peer_(peer),
      info_(info)
{
}

ControlServer::~ControlServer()
{
    if (acceptThread_.joinable()) {
        shutdown(listen_.get(), SHUT_RDWR);
        acceptThread_.join();
    }
}

bool ControlServer::listen(const std::string &name)
{
    listen_.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!listen_) {
        logLine("socket() failed: %s", strerror(errno));
        return false;
    }
    sockaddr_un addr;
    const socklen_t len = controlAddress(name, addr);
    if (bind(listen_.get(), reinterpret_cast<sockaddr *>(&addr), len) < 0) {
        if (errno == EADDRINUSE)
            logLine("an emulator named %s is already running", name.c_str());
        else
            logLine("cannot bind the control socket: %s", strerror(errno));
        return false;
    }
    if (::listen(listen_.get(), 16) < 0) {
        logLine("listen() failed: %s", strerror(errno));
        return false;
    }
    return true;
}

void ControlServer::start()
{
    acceptThread_ = std::thread([this] { acceptLoop(); });
}

void ControlServer::acceptLoop()
{
    for (;;) {
        usbd::UniqueFd conn(accept4(listen_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!conn) {
            if (errno == EINTR || errno == ECONNABORTED || errno == EMFILE || errno == ENFILE)
                continue;
            return; // shut down
        }
        if (clients_ >= kMaxClients) {
            sendMessage(conn.get(), {"error", "too many control clients"});
            continue;
        }
        ++clients_;
        std::thread([this, c = std::move(conn)]() mutable {
            serve(std::move(c));
            --clients_;
        }).detach();
    }
}

void ControlServer::serve(usbd::UniqueFd conn)
{
    std::vector<uint8_t> pushBuffer;
    for (;;) {
        Message request;
        const int r = receiveMessage(conn.get(), request);
        if (r == 0)
            return;
        if (r < 0) {
            sendMessage(conn.get(), {"error", "malformed or oversized control message"});
            return;
        }
        if (request.args.empty()) {
            sendMessage(conn.get(), {"usage", "empty request"});
            continue;
        }
        handle(request, conn.get(), pushBuffer);
    }
}

void ControlServer::handle(Message &request, int conn, std::vector<uint8_t> &pushBuffer)
{
    auto reply = [conn](const char *kind, const std::string &text) {
        sendMessage(conn, {kind, text});
    };
    auto ok = [&](const std::string &text = std::string()) { reply("ok", text); };
    auto fail = [&](const std::string &text) { reply("error", text); };
    auto usage = [&](const std::string &text) { reply("usage", text); };

    if (handleIos(request, conn))
        return;
    std::vector<std::string> args = request.args;
    const std::string cmd = args[0];
    std::string why;
    std::string epFile;
    if (!takeEpOption(args, epFile)) {
        usage("--ep needs an endpoint file name");
        return;
    }

    if (cmd == "status") {
        if (args.size() == 2 && args[1] == "--json")
            ok(statusJson());
        else if (args.size() == 1)
            ok(statusText());
        else
            usage("status [--json]");
    } else if (cmd == "wait-ready") {
        long ms = 0;
        if (args.size() != 2 || !validNumber(args[1], kMaxWaitMs, ms)) {
            usage("wait-ready MILLISECONDS");
            return;
        }
        if (ffs_.waitReady(std::chrono::milliseconds(ms)))
            ok("ready");
        else
            reply("timeout", "the function did not become ready in time");
    } else if (cmd == "plug") {
        std::string speed = kDefaultPlugSpeed;
        std::string maxPower = kDefaultPlugMaxPower;
        for (size_t i = 1; i < args.size(); i += 2) {
            long number = 0;
            if (i + 1 >= args.size()) {
                usage("plug [--speed SPEED] [--maxpower N]");
                return;
            }
            if (args[i] == "--speed" && validValue(args[i + 1])) {
                speed = args[i + 1];
            } else if (args[i] == "--maxpower" && validNumber(args[i + 1], 1000000, number)) {
                maxPower = args[i + 1];
            } else {
                usage("plug [--speed SPEED] [--maxpower N]");
                return;
            }
        }
        if (ffs_.status().state != "ready") {
            fail("the function is not ready (descriptors and strings not written)");
            return;
        }
        // The device reads the controller's files when it handles ENABLE, so they must hold
        // the new values before the events are queued.
        if (!host_.setSpeed(speed) || !host_.setMaxPower(maxPower)
            || !host_.setUdcState("configured")) {
            fail("cannot write the controller files");
            return;
        }
        if (!ffs_.plug(why)) {
            fail(why);
            return;
        }
        logLine("plugged: %s, MaxPower %s", speed.c_str(), maxPower.c_str());
        ok();
    } else if (cmd == "unplug") {
        if (args.size() != 1) {
            usage("unplug");
            return;
        }
        ffs_.unplug();
        host_.setUdcState("not attached");
        host_.setSpeed("UNKNOWN");
        logLine("unplugged");
        ok();
    } else if (cmd == "event") {
        uint8_t type = 0;
        uint8_t setup[8] = {};
        if (args.size() < 2 || args.size() > 3 || !parseEventType(args[1], type)
            || (args.size() == 3 && !parseHex8(args[2], setup))) {
            usage("event bind|unbind|enable|disable|setup|suspend|resume|0-255 [SETUP as 16 hex "
                  "digits]");
            return;
        }
        if (!ffs_.queueEvent(type, setup, why))
            fail(why);
        else
            ok();
    } else if (cmd == "udc-state" || cmd == "speed" || cmd == "maxpower") {
        long number = 0;
        if (args.size() != 2 || !validValue(args[1])
            || (cmd == "maxpower" && !validNumber(args[1], 1000000, number))) {
            usage(cmd + (cmd == "maxpower" ? " N" : " TEXT"));
            return;
        }
        const bool done = cmd == "udc-state" ? host_.setUdcState(args[1])
                          : cmd == "speed"   ? host_.setSpeed(args[1])
                                             : host_.setMaxPower(args[1]);
        if (!done) {
            fail("cannot write the file");
            return;
        }
        logLine("%s set to \"%s\"", cmd.c_str(), args[1].c_str());
        ok();
    } else if (cmd == "ios") {
        IosState state;
        if (args.size() != 2 || !parseIosState(args[1], state)) {
            usage("ios none|mfi|wifi");
            return;
        }
        if (!host_.setIos(state)) {
            fail("cannot write the link state file");
            return;
        }
        logLine("iOS peer: %s", iosStateName(state));
        ok();
    } else if (cmd == "stall" || cmd == "release") {
        if (args.size() != 1) {
            usage(cmd + " [--ep FILE]");
            return;
        }
        if (!ffs_.setStall(epFile, cmd == "stall", why)) {
            fail(why);
            return;
        }
        logLine("%s %s", epFile.empty() ? "first IN endpoint" : epFile.c_str(),
                cmd == "stall" ? "stalled" : "released");
        ok();
    } else if (cmd == "short") {
        long bytes = 0;
        if (args.size() != 2 || !validNumber(args[1], LONG_MAX, bytes)) {
            usage("short N [--ep FILE]");
            return;
        }
        if (!ffs_.setShort(epFile, bytes, why))
            fail(why);
        else
            ok();
    } else if (cmd == "ep1-push") {
        if (args.size() != 2 || (args[1] != "more" && args[1] != "last")) {
            usage("ep1-push more|last [--ep FILE] with the bytes as payload");
            return;
        }
        if (pushBuffer.size() + request.payload.size() > kMaxOutQueueBytes) {
            pushBuffer.clear();
            fail("push too large");
            return;
        }
        pushBuffer.insert(pushBuffer.end(), request.payload.begin(), request.payload.end());
        if (args[1] == "more") {
            ok();
            return;
        }
        const size_t size = pushBuffer.size();
        const bool pushed =
            ffs_.pushOut(epFile.empty() ? "ep1" : epFile, std::move(pushBuffer), why);
        pushBuffer = std::vector<uint8_t>();
        if (!pushed) {
            fail(why);
            return;
        }
        logLine("host sent %zu bytes on %s", size, epFile.empty() ? "ep1" : epFile.c_str());
        ok();
    } else if (cmd == "ep1-eof") {
        if (!ffs_.pushOutEof(epFile.empty() ? "ep1" : epFile, why))
            fail(why);
        else
            ok();
    } else if (cmd == "capture") {
        if (!request.fd) {
            usage("capture needs the file's descriptor");
            return;
        }
        ffs_.setCapture(std::move(request.fd));
        logLine("capture switched to a new file");
        ok();
    } else if (cmd == "capture-off") {
        ffs_.setCapture(usbd::UniqueFd());
        logLine("capture off: data is counted and discarded");
        ok();
    } else if (cmd == "exec-info") {
        std::vector<std::string> out = {"ok", ""};
        out.insert(out.end(), info_.execEnv.begin(), info_.execEnv.end());
        sendMessage(conn, out, nullptr, 0, info_.initPidFd.get());
    } else {
        usage("unknown command " + cmd);
    }
}

// The iOS peer's test controls; false when `request` is not one of them.
bool ControlServer::handleIos(Message &request, int conn)
{
    const std::vector<std::string> &args = request.args;
    const std::string &cmd = args[0];
    auto reply = [conn](const char *kind, const std::string &text) {
        sendMessage(conn, {kind, text});
    };
    long number = 0;
    if (cmd == "ios-fail" || cmd == "ios-partial") {
        if (args.size() != 2
            || !validNumber(args[1], cmd == "ios-fail" ? 1000000 : INT32_MAX, number)) {
            reply("usage", cmd + " N");
            return true;
        }
        if (cmd == "ios-fail")
            peer_.failNext(unsigned(number));
        else
            peer_.partialNext(number);
        logLine("iOS peer: %s %ld",
                cmd == "ios-fail" ? "the next sends fail:" : "the next frame takes", number);
    } else if (cmd == "ios-block" || cmd == "ios-release") {
        if (args.size() != 1) {
            reply("usage", cmd);
            return true;
        }
        peer_.setBlocked(cmd == "ios-block");
        logLine("iOS peer: answers %s", cmd == "ios-block" ? "held" : "released");
    } else if (cmd == "ios-reset") {
        peer_.reset();
    } else if (cmd == "ios-log") {
        if (args.size() > 2 || (args.size() == 2 && args[1] != "--json")) {
            reply("usage", "ios-log [--json]");
            return true;
        }
        reply("ok", args.size() == 2 ? peer_.logJson() : peer_.logText());
        return true;
    } else if (cmd == "ios-capture") {
        if (!request.fd) {
            reply("usage", "ios-capture needs the file's descriptor");
            return true;
        }
        peer_.setCapture(std::move(request.fd));
        logLine("iOS peer: capture switched to a new file");
    } else if (cmd == "ios-capture-off") {
        peer_.setCapture(usbd::UniqueFd());
    } else {
        return false;
    }
    reply("ok", "");
    return true;
}

std::string ControlServer::statusText()
{
    const FunctionStatus f = ffs_.status();
    const HostFiles::Snapshot h = host_.snapshot();
    std::string text;
    auto line = [&](const char *key, const std::string &value) {
        char head[32];
        snprintf(head, sizeof head, "%-14s", key);
        text += head + value + "\n";
    };
    line("emulator:", info_.name + " (init pid " + std::to_string(info_.initPid) + ")");
    line("descriptors:", f.state == "waiting-descriptors" ? "not written" : "accepted");
    line("strings:", f.state == "ready" ? "accepted" : "not written");
    if (f.state == "ready") {
        for (const Interface &itf : f.layout.interfaces) {
            char desc[96];
            snprintf(desc, sizeof desc,
                     "%u: class 0x%02x subclass 0x%02x protocol 0x%02x, %u endpoints", itf.number,
                     itf.cls, itf.subclass, itf.protocol, itf.endpointCount);
            std::string value = desc;
            if (itf.stringIndex && !f.layout.languages.empty()
                && itf.stringIndex <= f.layout.languages.front().strings.size())
                value += ", \"" + f.layout.languages.front().strings[itf.stringIndex - 1] + "\"";
            line("interface", value);
        }
        for (const EndpointStatus &e : f.endpoints) {
            char desc[160];
            snprintf(desc, sizeof desc, "%s 0x%02x %s, ", e.desc.isIn() ? "IN " : "OUT",
                     e.desc.address, e.desc.typeName());
            std::string value = desc;
            if (e.desc.isIn()) {
                value +=
                    std::to_string(e.bytes) + " bytes in " + std::to_string(e.writes) + " writes";
                if (e.ioctls)
                    value += " and " + std::to_string(e.ioctls) + " ioctls ("
                             + std::to_string(e.ioctlBytes) + " bytes)";
                if (e.stalled)
                    value += ", stalled";
                if (e.shortNext >= 0)
                    value += ", next write short (" + std::to_string(e.shortNext) + " bytes)";
                if (e.file == f.captureEndpoint)
                    value += f.capturing ? ", captured" : ", discarded";
            } else {
                value += std::to_string(e.bytes) + " bytes read, " + std::to_string(e.queued)
                         + " bytes queued";
            }
            if (e.held)
                value += ", " + std::to_string(e.held) + " waiting";
            line((e.file + ":").c_str(), value);
        }
        line("enabled:", f.enabled ? "yes" : "no");
        line("events:", std::to_string(f.eventsQueued) + " waiting");
    }
    line("udc:",
         h.udc + ": state \"" + h.state + "\", speed \"" + h.speed + "\", MaxPower " + h.maxPower);
    line("ios:", iosStateName(h.ios));
    const IosPeerStatus p = peer_.status();
    std::string peer = std::to_string(p.arrivals) + " frames and records, "
                       + std::to_string(p.completed) + " requests complete, "
                       + std::to_string(p.connections) + " connections";
    if (p.failNext)
        peer += ", next " + std::to_string(p.failNext) + " sends fail";
    if (p.partialNext >= 0)
        peer += ", next frame takes " + std::to_string(p.partialNext) + " bytes";
    if (p.blocked)
        peer += ", answers held (" + std::to_string(p.held) + " waiting)";
    if (p.capturing)
        peer += ", captured";
    line("ios peer:", peer);
    if (!info_.dbusAddress.empty())
        line("dbus:", info_.dbusAddress);
    return text;
}

std::string ControlServer::statusJson()
{
    const FunctionStatus f = ffs_.status();
    const HostFiles::Snapshot h = host_.snapshot();
    const bool ready = f.state == "ready";
    std::string j = "{";
    j += "\"name\":" + jsonString(info_.name);
    j += ",\"init_pid\":" + std::to_string(info_.initPid);
    j += ",\"state\":" + jsonString(f.state);
    j += std::string(",\"descriptors\":") + boolText(f.state != "waiting-descriptors");
    j += std::string(",\"strings\":") + boolText(ready);
    j += std::string(",\"ready\":") + boolText(ready);
    j += ",\"interfaces\":[";
    if (ready) {
        for (size_t i = 0; i < f.layout.interfaces.size(); ++i) {
            const Interface &itf = f.layout.interfaces[i];
            std::string name;
            if (itf.stringIndex && !f.layout.languages.empty()
                && itf.stringIndex <= f.layout.languages.front().strings.size())
                name = f.layout.languages.front().strings[itf.stringIndex - 1];
            j += std::string(i ? "," : "") + "{\"number\":" + std::to_string(itf.number)
                 + ",\"class\":" + std::to_string(itf.cls) + ",\"subclass\":"
                 + std::to_string(itf.subclass) + ",\"protocol\":" + std::to_string(itf.protocol)
                 + ",\"endpoints\":" + std::to_string(itf.endpointCount)
                 + ",\"string_index\":" + std::to_string(itf.stringIndex)
                 + ",\"string\":" + (itf.stringIndex ? jsonString(name) : "null") + "}";
        }
    }
    j += "],\"endpoints\":[";
    for (size_t i = 0; i < f.endpoints.size(); ++i) {
        const EndpointStatus &e = f.endpoints[i];
        j += std::string(i ? "," : "") + "{\"file\":" + jsonString(e.file) + ",\"address\":"
             + std::to_string(e.desc.address) + ",\"direction\":\"" + (e.desc.isIn() ? "in" : "out")
             + "\",\"type\":\"" + e.desc.typeName() + "\",\"max_packet\":["
             + std::to_string(e.desc.maxPacket[0]) + "," + std::to_string(e.desc.maxPacket[1]) + ","
             + std::to_string(e.desc.maxPacket[2]) + "],\"bytes\":" + std::to_string(e.bytes)
             + ",\"writes\":" + std::to_string(e.writes) + ",\"ioctls\":" + std::to_string(e.ioctls)
             + ",\"ioctl_bytes\":" + std::to_string(e.ioctlBytes)
             + ",\"reads\":" + std::to_string(e.reads) + ",\"waiting\":" + std::to_string(e.held)
             + ",\"stalled\":" + boolText(e.stalled)
             + ",\"short\":" + (e.shortNext >= 0 ? std::to_string(e.shortNext) : "null")
             + ",\"queued\":" + std::to_string(e.queued) + "}";
    }
    j += "],\"languages\":[";
    if (ready) {
        for (size_t i = 0; i < f.layout.languages.size(); ++i) {
            const auto &lang = f.layout.languages[i];
            j +=
                std::string(i ? "," : "") + "{\"id\":" + std::to_string(lang.id) + ",\"strings\":[";
            for (size_t s = 0; s < lang.strings.size(); ++s)
                j += (s ? "," : "") + jsonString(lang.strings[s]);
            j += "]}";
        }
    }
    j += std::string("],\"enabled\":") + boolText(f.enabled);
    j += ",\"events_queued\":" + std::to_string(f.eventsQueued);
    j += ",\"open_files\":" + std::to_string(f.opens);
    j += ",\"udc\":{\"name\":" + jsonString(h.udc) + ",\"state\":" + jsonString(h.state)
         + ",\"speed\":" + jsonString(h.speed) + ",\"maxpower\":" + jsonString(h.maxPower) + "}";
    j += ",\"ios\":" + jsonString(iosStateName(h.ios));
    const IosPeerStatus p = peer_.status();
    j += ",\"ios_peer\":{\"connections\":" + std::to_string(p.connections) + ",\"arrivals\":"
         + std::to_string(p.arrivals) + ",\"requests_complete\":" + std::to_string(p.completed)
         + ",\"fail_next\":" + std::to_string(p.failNext)
         + ",\"partial_next\":" + (p.partialNext >= 0 ? std::to_string(p.partialNext) : "null")
         + ",\"blocked\":" + boolText(p.blocked) + ",\"held\":" + std::to_string(p.held)
         + ",\"capture\":" + boolText(p.capturing) + "}";
    j += std::string(",\"capture\":{\"active\":") + boolText(f.capturing) + ",\"endpoint\":"
         + (f.captureEndpoint.empty() ? "null" : jsonString(f.captureEndpoint)) + "}";
    j += ",\"dbus\":" + (info_.dbusAddress.empty() ? "null" : jsonString(info_.dbusAddress));
    return j + "}";
}

} // namespace usbdemu
