#pragma once

#include <cstddef>
#include <ctime>
#include <deque>
#include <optional>
#include <string>

#include "uevent.h"

// The first line of the file at `path` without its line feed; empty, after logging why, when
// the file cannot be read or has no line.
std::string readFirstLine(const std::string& path);

// Reads the kernel's hot-plug broadcasts from a netlink uevent socket. Each call of
// waitForDevice or checkRemoved handles one datagram at most; time-outs, signals, errors and
// events of no interest all give false. Once a stop is requested no call waits any more.
//
// What kernels send when a USB device comes and goes:
//   before 4.14    add                         remove
//   since 4.14     add, change, bind           unbind, remove
// Interfaces of the device send events of their own, and `udevadm trigger` makes the kernel
// send change for every device. Any action but "add" counts as a removal here, so the caller
// asks takeUnitThatStays whether the device is there all the same.
class UeventMonitor {
    int fd;  // the socket, -1 when there is none

public:
    // Whether the last event that named an action was an "add".
    bool added = false;

    // BUSNUM/DEVNUM of the device that arrived last, for example 001/004; empty before.
    std::string nodePath;

    // Something came or went without an event, or may have: set here when the kernel drops
    // events for want of buffer space, and by the caller when it finds out by itself. The caller
    // clears it once it has looked.
    bool missed = false;

    // Something came at the socket. The caller clears it.
    bool received = false;

    // Opens the socket; a failure is logged and leaves the monitor without one for good.
    UeventMonitor();
    UeventMonitor(const UeventMonitor&) = delete;
    UeventMonitor& operator=(const UeventMonitor&) = delete;
    virtual ~UeventMonitor();

    // Waits without time limit, or a second as long as something was missed. True only for the
    // arrival of a USB device with these IDs; `nodePath` then names it.
    bool waitForDevice(int vendorId, int productId);

    // Waits one second at most (without limit, and never true, for an empty path). True only
    // for an event of the USB device at `watchedPath` whose action is not "add".
    bool checkRemoved(const std::string& watchedPath);

    // Where there is no socket, and so nothing to wait for, waits a second or until a signal.
    void pauseWithoutSocket() const;

    // Once after checkRemoved returned true: whether the event was no removal and its device is
    // still in sysfs. That counts as the device's arrival: `added` and `nodePath` are set as by
    // waitForDevice.
    bool takeUnitThatStays();

    // After an arrival, before the unit is opened: lets the events pass that follow it. Waits
    // until none has come for some time and the kernel has enumerated the unit. Those of the
    // unit that are neither its arrival nor its removal are forgotten while it is attached; all
    // others are kept for the next calls.
    void passBurst();

    // The same for the events that have come of the unit at `path`, whose arrival went unheard.
    void passBurstOf(const std::string& path);

    // True when all events have been handled.
    bool isQueueEmpty() const;

    // True when it is up to the caller to look what came and went: something was missed, or
    // there is no socket. Not before the queue is empty: until then the kernel goes on dropping
    // events, so whoever looked would miss the rest.
    bool mustLook() const;

    // Asks to search for a unit that arrived unheard: true when mustLook is, but only once a
    // second. Nothing counts as missed then.
    bool claimSearch();

private:
    bool readEvent(int vendorId, int productId, const std::string& watchedPath);
    bool waitReadable(const timespec* limit) const;
    bool readAhead(const std::string& path, const timespec* limit);
    std::string receive();
    bool handleDatagram(const std::string& datagram, int vendorId, int productId,
                        const std::string& watchedPath);

    std::deque<std::string> kept;           // datagrams read ahead, to be handled first
    std::optional<Uevent> reportedRemoval;  // the event that made checkRemoved return true
    Uevent arrival;                         // the event that `nodePath` is from
    timespec lastSearch;                    // when claimSearch was last true, or the start
};
