#pragma once

// A bus of scripted devices behind libusb's own functions, linked into the test instead of
// libusb, so that the host library's finding, waiting and streaming run unchanged against
// devices that split data into packets, stop sending, refuse access or leave the bus.

#include <libusb.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

struct libusb_device {
    uint8_t bus = 1;
    uint8_t address = 1;
    uint16_t vendorId = 0x1d6b;
    uint16_t productId = 0x0105;
    int speed = LIBUSB_SPEED_HIGH;
    uint16_t packet = 512;
    bool function = true; // the vendor interface, or a mass-storage one in its place
    int openError = 0;    // libusb_open's answer
    int claimError = 0;
    std::vector<std::string> strings = {"Korvane", "Media Device", "0123", "CTRL Interface"};
    int scansUntilPresent = 0; // the device arrives after this many device-list scans

    // Bulk IN: what the device has written, in packets as the controller sends them.
    std::deque<std::vector<uint8_t>> packets;
    // Bulk IN: leave the bus once this much has been delivered (0: never), failing the
    // transfers in flight as gone, or as a controller that reports a protocol error first does.
    uint64_t goneAfter = 0;
    bool goneAsError = false;
    // When it leaves, the last transfer that took bytes comes back only at the next event
    // handling, after the device is off the bus: usbfs can hand back a completed transfer after
    // the host library has already seen a new one fail to submit.
    bool lateLastCompletion = false;
    // Bulk OUT: what the device takes before it stops reading, and what it took.
    uint64_t outCapacity = 0;
    std::vector<uint8_t> outData;
    // Transfers larger than this fail to submit with LIBUSB_ERROR_NO_MEM (0: no limit).
    size_t submitLimit = 0;

    // Writes one block as the device's f_fs write goes out: whole packets, then a short one
    // (none if the block ends on a packet boundary).
    void write(const std::vector<uint8_t> &data);

    // Filled in by the fake.
    bool claimed = false;
    int alternateSetting = 0;
    uint64_t delivered = 0;
    size_t largestSubmit = 0;
};

namespace fakeusb {

// The bus the fake libusb shows; tests own the devices and clear it after themselves.
std::vector<std::shared_ptr<libusb_device>> &bus();
int openContexts();
int scans();
void reset();

} // namespace fakeusb
