#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "unit.h"
#include "usbip.h"

// A unit and the socket through which the kernel's controller talks to it.
class Connection {
public:
    // Takes over the non-blocking stream socket and closes it at its end. The unit must outlive it.
    Connection(int socketFd, Unit& unit);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Takes in what has arrived. False when the kernel has closed its end.
    bool receive();

    // Answers the next command that has arrived whole; `event` says what happened and is empty
    // when nothing of interest did. False when there is none.
    bool answerNext(std::string& event);

    // Sends what the socket takes of the answers. False when the kernel has closed its end.
    bool send();

    bool hasToSend() const { return !outgoing.empty(); }

    const int socket;
    Unit& unit;

private:
    Bytes answer(const UsbipCommand& command, std::string& event);

    UsbipReader reader;
    Bytes outgoing;
    std::set<std::uint32_t> waitingReads;  // transfers of the IN endpoint without an answer
};
