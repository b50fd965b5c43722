#include "connection.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace {

constexpr std::uint32_t controlEndpoint = 0;
constexpr std::uint32_t inEndpoint = 1;
constexpr std::uint32_t outEndpoint = 2;

bool wouldBlock() { return errno == EAGAIN || errno == EINTR; }

}  // namespace

Connection::Connection(int socketFd, Unit& playedUnit) : socket(socketFd), unit(playedUnit) {}

Connection::~Connection() { close(socket); }

bool Connection::receive() {
    std::uint8_t buffer[4096];
    const ssize_t got = recv(socket, buffer, sizeof buffer, 0);
    if (got > 0) {
        reader.append(buffer, static_cast<std::size_t>(got));
    }
    return got > 0 || (got < 0 && wouldBlock());
}

bool Connection::answerNext(std::string& event) {
    UsbipCommand command;
    if (!reader.next(command)) {
        return false;
    }
    event.clear();
    const Bytes reply = answer(command, event);
    outgoing.insert(outgoing.end(), reply.begin(), reply.end());
    return true;
}

Bytes Connection::answer(const UsbipCommand& command, std::string& event) {
    if (command.unlink) {
        const bool waited = waitingReads.erase(command.unlinkedSeqnum) > 0;
        return packUnlinkReply(command.seqnum, waited ? -ECONNRESET : 0);
    }
    if (command.endpoint == controlEndpoint) {
        const ControlReply reply = unit.control(command.setup);
        event = reply.event;
        if (reply.stalled) {
            return packSubmitReply(command.seqnum, -EPIPE, 0, {});
        }
        if (command.in) {
            return packSubmitReply(command.seqnum, 0, static_cast<std::uint32_t>(reply.data.size()),
                                   reply.data);
        }
        return packSubmitReply(command.seqnum, 0, command.length, {});
    }
    if (command.endpoint == inEndpoint && command.in) {
        // A real chip sends two bytes of modem status every 16 ms. Nothing happens on this one's
        // serial line: a reader waits until it gives up, and costs no time.
        waitingReads.insert(command.seqnum);
        return {};
    }
    if (command.endpoint == outEndpoint && !command.in) {
        return packSubmitReply(command.seqnum, 0, command.length, {});
    }
    return packSubmitReply(command.seqnum, -EPIPE, 0, {});
}

bool Connection::send() {
    while (!outgoing.empty()) {
        const ssize_t sent = ::send(socket, outgoing.data(), outgoing.size(), MSG_NOSIGNAL);
        if (sent < 0) {
            return wouldBlock();
        }
        outgoing.erase(outgoing.begin(), outgoing.begin() + sent);
    }
    return true;
}
