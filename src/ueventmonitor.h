#pragma once

#include <cstddef>
#include <ctime>
#include <deque>
#include <optional>
#include <string>

#include "uevent.h"

// Reads the kernel's hot-plug broadcasts from a netlink uevent socket. Each call of
// waitForDevice or checkRemoved handles one event; time-outs, signals, errors and events of no
// interest all give false. Once a stop is requested no call waits any more. Events that come while
// a unit is being opened are kept as backlog, and handled by the next calls like all others.
//
// What kernels send when a USB device comes and goes:
//   before 4.14    add                         remove
//   since 4.14     add, change, bind           unbind, remove
// Interfaces of the device send events of their own, and `udevadm trigger` makes the kernel
// send change for every device. Any action but "add" counts as a removal here, so the caller
// asks tellsOfArrival and takeStayingUnit whether the device is there all the same.
class UeventMonitor {
    // In the order in which they are set: `added` and `nodePath` come from the socket.
    int fd;  // -1 when there is none

public:
    // Whether the last event that named an action was an "add".
    bool added = false;

    // BUSNUM/DEVNUM of the device that arrived last, for example 001/004; empty before.
    std::string nodePath;

    // Opens the socket; a failure is logged and leaves the monitor without one for good.
    UeventMonitor();
    UeventMonitor(const UeventMonitor&) = delete;
    UeventMonitor& operator=(const UeventMonitor&) = delete;
    virtual ~UeventMonitor();

    // Waits without time limit, or a second while a rescan is due. True only for the arrival of a
    // USB device with these IDs; `nodePath` then names it.
    bool waitForDevice(int vendorId, int productId);

    // Waits one second at most; for an empty path as waitForDevice does, and is never true. True
    // only for an event of the USB device at `watchedPath` whose action is not "add".
    bool checkRemoved(const std::string& watchedPath);

    // Where there is no socket, and so nothing to wait for, waits a second or until a signal.
    void pauseWithoutSocket() const;

    // Before the opening of a unit that arrived: waits until the kernel has enumerated it. Gives
    // up after 0.3 s, but the kernel may block it longer, as it would block the opening.
    void settle();

    // Once a unit is open: takes what has come by now for the events of its arrival.
    void keepArrivalBacklog();

    // After checkRemoved returned true: whether the event belongs to the arrival of the open unit,
    // which is still attached, and so is no removal.
    bool tellsOfArrival() const;

    // Once after checkRemoved returned true: whether the event was no removal and its device is
    // still attached. That counts as the device's arrival: `added` and `nodePath` are set as by
    // waitForDevice.
    bool takeStayingUnit();

    // Whether anything has come at the socket since the last call; always without a socket, where
    // nothing tells.
    bool takeHeard();

    // True when the caller must look what came and went: the kernel has dropped events for want
    // of buffer space, or the caller suspects a loss, or there is no socket. Not before all
    // events are handled: until then the kernel goes on dropping. A loss is told once.
    bool takeOverrun(bool suspected);

    // Makes a rescan due, as an overrun does.
    void requestRescan();

    // True when a rescan is due, as takeOverrun is, but once a second at most.
    bool claimRescan();

private:
    bool readEvent(int vendorId, int productId, const std::string& watchedPath);
    bool handleEvent(int vendorId, int productId, const std::string& watchedPath);
    bool waitReadable(const timespec* limit) const;
    bool keepNext(const timespec* limit);
    std::optional<Uevent> receive();

    std::deque<Uevent> backlog;
    Uevent event;  // the one handled last, and what it is:
    bool eventIsOfArrival = false;
    bool removalReported = false;
    Uevent arrival;  // the event that `nodePath` is from
    bool heard = false;
    bool overrun = false;
    timespec lastRescan;  // or the start
};
