#include "usbip.h"

namespace {

constexpr std::size_t headerSize = 48;

constexpr std::uint32_t commandUnlink = 2;
constexpr std::uint32_t replySubmit = 3;
constexpr std::uint32_t replyUnlink = 4;

// Offsets of the header's fields; those from 20 on depend on the command.
constexpr std::size_t commandAt = 0;
constexpr std::size_t seqnumAt = 4;
constexpr std::size_t directionAt = 12;
constexpr std::size_t endpointAt = 16;
constexpr std::size_t statusAt = 20;
constexpr std::size_t unlinkedSeqnumAt = 20;
constexpr std::size_t lengthAt = 24;
constexpr std::size_t setupAt = 40;

std::uint32_t bigEndian32(const Bytes& bytes, std::size_t at) {
    return std::uint32_t{bytes[at]} << 24 | std::uint32_t{bytes[at + 1]} << 16 |
           std::uint32_t{bytes[at + 2]} << 8 | bytes[at + 3];
}

void putBigEndian32(Bytes& bytes, std::size_t at, std::uint32_t value) {
    for (std::size_t i = 0; i < 4; ++i) {
        bytes[at + i] = static_cast<std::uint8_t>(value >> (24 - 8 * i));
    }
}

std::uint16_t littleEndian16(const Bytes& bytes, std::size_t at) {
    return static_cast<std::uint16_t>(bytes[at] | bytes[at + 1] << 8);
}

Bytes replyHeader(std::uint32_t command, std::uint32_t seqnum, std::int32_t status) {
    Bytes header(headerSize);
    putBigEndian32(header, commandAt, command);
    putBigEndian32(header, seqnumAt, seqnum);
    putBigEndian32(header, statusAt, static_cast<std::uint32_t>(status));
    return header;
}

}  // namespace

void UsbipReader::append(const std::uint8_t* data, std::size_t length) {
    received.insert(received.end(), data, data + length);
}

bool UsbipReader::next(UsbipCommand& command) {
    if (received.size() < headerSize) {
        return false;
    }
    UsbipCommand parsed;
    parsed.unlink = bigEndian32(received, commandAt) == commandUnlink;
    parsed.seqnum = bigEndian32(received, seqnumAt);
    std::size_t whole = headerSize;
    if (parsed.unlink) {
        parsed.unlinkedSeqnum = bigEndian32(received, unlinkedSeqnumAt);
    } else {
        parsed.endpoint = bigEndian32(received, endpointAt);
        parsed.in = bigEndian32(received, directionAt) == 1;
        parsed.length = bigEndian32(received, lengthAt);
        parsed.setup = {
            received[setupAt], received[setupAt + 1], littleEndian16(received, setupAt + 2),
            littleEndian16(received, setupAt + 4), littleEndian16(received, setupAt + 6)};
        // A transfer must not be answered while the kernel is still sending its buffer.
        whole += parsed.in ? 0 : parsed.length;
    }
    if (received.size() < whole) {
        return false;
    }
    received.erase(received.begin(), received.begin() + static_cast<std::ptrdiff_t>(whole));
    command = parsed;
    return true;
}

Bytes packSubmitReply(std::uint32_t seqnum, std::int32_t status, std::uint32_t actualLength,
                      const Bytes& data) {
    Bytes reply = replyHeader(replySubmit, seqnum, status);
    putBigEndian32(reply, lengthAt, actualLength);
    reply.insert(reply.end(), data.begin(), data.end());
    return reply;
}

Bytes packUnlinkReply(std::uint32_t seqnum, std::int32_t status) {
    return replyHeader(replyUnlink, seqnum, status);
}
