#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// The wire format between the kernel's virtual USB host controller and a device played on it
// (Documentation/usb/usbip_protocol.rst of the kernel), as far as full-speed devices without
// isochronous endpoints need it.

using Bytes = std::vector<std::uint8_t>;

// A setup packet (USB 2.0, 9.3).
struct SetupPacket {
    std::uint8_t requestType = 0;
    std::uint8_t request = 0;
    std::uint16_t value = 0;
    std::uint16_t index = 0;
    std::uint16_t length = 0;
};

// One command of the kernel: a transfer to answer, or the number of one that it gave up.
struct UsbipCommand {
    bool unlink = false;
    std::uint32_t seqnum = 0;
    std::uint32_t unlinkedSeqnum = 0;  // the transfer given up; the rest is for transfers only
    std::uint32_t endpoint = 0;        // without the direction bit
    bool in = false;                   // from the device to the host
    std::uint32_t length = 0;          // of the host's buffer
    SetupPacket setup;                 // only for endpoint 0
};

// Cuts the stream of a socket, which comes in pieces of any size, into commands.
class UsbipReader {
public:
    void append(const std::uint8_t* data, std::size_t length);

    // Takes the first command and the data that came with it (which nothing here needs) off the
    // stream. False as long as they have not arrived whole.
    bool next(UsbipCommand& command);

private:
    Bytes received;
};

// The answer to a transfer: a status (0 or a negative errno), how many bytes were taken or
// given, and the bytes given, if any.
Bytes packSubmitReply(std::uint32_t seqnum, std::int32_t status, std::uint32_t actualLength,
                      const Bytes& data);

// The answer to an unlink.
Bytes packUnlinkReply(std::uint32_t seqnum, std::int32_t status);
