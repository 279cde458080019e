#pragma once

// The control channel between usbd-emuctl and a running emulator: a SOCK_SEQPACKET socket in
// the abstract namespace ("\0usbd-emu/<name>"), so it leaves no file on the host and is
// reachable from inside and outside the emulator's mount namespace alike.
//
// Every message, request or reply, is one packet: a u32 argument count, each argument as a u32
// length and its bytes, then an optional binary payload; an fd may ride along (SCM_RIGHTS).
// A reply's first argument is "ok", "error" or "usage", the second a text for a person.

#include <usbd/unique_fd.h>

#include <sys/socket.h>
#include <sys/un.h>

#include <cstdint>
#include <string>
#include <vector>

namespace usbdemu {

constexpr size_t kMaxControlMessage = 128 * 1024;
constexpr size_t kMaxControlArgs = 64;
// Payload bytes one ep1-push packet carries; larger pushes are sent in parts.
constexpr size_t kPushChunk = 64 * 1024;

struct Message {
    std::vector<std::string> args;
    std::vector<uint8_t> payload;
    usbd::UniqueFd fd;
};

// True for names that make a sensible socket name: 1-64 of [A-Za-z0-9._-].
bool validEmulatorName(const std::string &name);
socklen_t controlAddress(const std::string &name, sockaddr_un &addr);

// `text` as a JSON string literal, quotes included.
std::string jsonString(const std::string &text);

bool sendMessage(int sock, const std::vector<std::string> &args, const void *payload = nullptr,
                 size_t payloadSize = 0, int fd = -1);
// 1: a message; 0: the peer closed; negative errno: failure or a malformed/oversized message.
int receiveMessage(int sock, Message &out);

} // namespace usbdemu
