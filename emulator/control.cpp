#include "control.h"

#include <cctype>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace usbdemu {

namespace {

void put32(std::vector<uint8_t> &out, uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        out.push_back(uint8_t(value >> (8 * i)));
}

bool get32(const uint8_t *data, size_t len, size_t &pos, uint32_t &value)
{
    if (len - pos < 4)
        return false;
    value = uint32_t(data[pos]) | uint32_t(data[pos + 1]) << 8 | uint32_t(data[pos + 2]) << 16
            | uint32_t(data[pos + 3]) << 24;
    pos += 4;
    return true;
}

} // namespace

std::string jsonString(const std::string &text)
{
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += char(c);
        } else if (c < 0x20) {
            char esc[8];
            snprintf(esc, sizeof esc, "\\u%04x", c);
            out += esc;
        } else {
            out += char(c);
        }
    }
    return out + "\"";
}

bool validEmulatorName(const std::string &name)
{
    if (name.empty() || name.size() > 64)
        return false;
    for (char c : name)
        if (!isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '_' && c != '-')
            return false;
    return true;
}

socklen_t controlAddress(const std::string &name, sockaddr_un &addr)
{
    addr = {};
    addr.sun_family = AF_UNIX;
    const std::string path = "usbd-emu/" + name;
    // Abstract address: a leading zero byte, no terminator, length given explicitly.
    memcpy(addr.sun_path + 1, path.data(), path.size());
    return socklen_t(offsetof(sockaddr_un, sun_path) + 1 + path.size());
}

bool sendMessage(int sock, const std::vector<std::string> &args, const void *payload,
                 size_t payloadSize, int fd)
{
    std::vector<uint8_t> out;
    put32(out, uint32_t(args.size()));
    for (const std::string &arg : args) {
        put32(out, uint32_t(arg.size()));
        out.insert(out.end(), arg.begin(), arg.end());
    }
    const uint8_t *bytes = static_cast<const uint8_t *>(payload);
    out.insert(out.end(), bytes, bytes + payloadSize);
    if (out.size() > kMaxControlMessage || args.size() > kMaxControlArgs) {
        errno = EMSGSIZE;
        return false;
    }
    iovec iov{out.data(), out.size()};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    if (fd >= 0) {
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
        cmsghdr *cmsg = CMSG_FIRSTHDR(&msg);
        cmsg->cmsg_level = SOL_SOCKET;
        cmsg->cmsg_type = SCM_RIGHTS;
        cmsg->cmsg_len = CMSG_LEN(sizeof(int));
        memcpy(CMSG_DATA(cmsg), &fd, sizeof fd);
    }
    ssize_t sent;
    do
        sent = sendmsg(sock, &msg, MSG_NOSIGNAL);
    while (sent < 0 && errno == EINTR);
    return sent == ssize_t(out.size());
}

int receiveMessage(int sock, Message &out)
{
    out = Message();
    std::vector<uint8_t> buf(kMaxControlMessage);
    iovec iov{buf.data(), buf.size()};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(4 * sizeof(int))];
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    ssize_t got;
    do
        got = recvmsg(sock, &msg, MSG_CMSG_CLOEXEC);
    while (got < 0 && errno == EINTR);
    if (got < 0)
        return -errno;
    // Take ownership of every descriptor that came along, so none leaks whatever happens next.
    for (cmsghdr *cmsg = CMSG_FIRSTHDR(&msg); cmsg; cmsg = CMSG_NXTHDR(&msg, cmsg)) {
        if (cmsg->cmsg_level != SOL_SOCKET || cmsg->cmsg_type != SCM_RIGHTS)
            continue;
        const size_t count = (cmsg->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int fd;
            memcpy(&fd, CMSG_DATA(cmsg) + i * sizeof(int), sizeof fd);
            if (!out.fd)
                out.fd.reset(fd);
            else
                usbd::UniqueFd extra(fd);
        }
    }
    if (got == 0)
        return 0;
    if (msg.msg_flags & (MSG_TRUNC | MSG_CTRUNC))
        return -EMSGSIZE;
    const size_t len = size_t(got);
    size_t pos = 0;
    uint32_t argc = 0;
    if (!get32(buf.data(), len, pos, argc) || argc > kMaxControlArgs)
        return -EBADMSG;
    for (uint32_t i = 0; i < argc; ++i) {
        uint32_t size = 0;
        if (!get32(buf.data(), len, pos, size) || size > len - pos)
            return -EBADMSG;
        out.args.emplace_back(reinterpret_cast<const char *>(buf.data() + pos), size);
        pos += size;
    }
    out.payload.assign(buf.begin() + long(pos), buf.begin() + long(len));
    return 1;
}

} // namespace usbdemu
