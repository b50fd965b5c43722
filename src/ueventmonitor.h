#pragma once

#include <cstddef>
#include <ctime>
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
// asks deviceStays whether the device is there all the same.
class UeventMonitor {
public:
    // Opens the socket; a failure is logged and leaves the monitor without one for good.
    UeventMonitor();
    UeventMonitor(const UeventMonitor&) = delete;
    UeventMonitor& operator=(const UeventMonitor&) = delete;
    virtual ~UeventMonitor();

    // False when there is no socket; both waits then return false without blocking.
    bool hasSocket() const { return fd >= 0; }

    // Waits a second, or until a signal: what a caller does instead where there is no socket.
    void pause() const;

    // Waits without time limit. True only for the arrival of a USB device with these IDs;
    // `nodePath` then names it.
    bool waitForDevice(int vendorId, int productId);

    // Waits one second at most (without limit, and never true, for an empty path). True only
    // for an event of the USB device at `watchedPath` whose action is not "add".
    bool checkRemoved(const std::string& watchedPath);

    // After checkRemoved returned true: true when the event was no removal and its device is
    // still in sysfs. That counts as the device's arrival: `added` and `nodePath` are set as by
    // waitForDevice.
    bool deviceStays();

    // True once after the kernel dropped events for want of buffer space, and not before the
    // queue has been read empty: until then the kernel goes on dropping, so whoever looks for
    // what was missed would miss the rest.
    bool eventsWereLost();

    // Whether the last event that named an action was an "add".
    bool added = false;

    // BUSNUM/DEVNUM of the device that arrived last, for example 001/004; empty before.
    std::string nodePath;

private:
    bool readEvent(int vendorId, int productId, const std::string& watchedPath);
    bool waitReadable(const timespec* limit) const;
    bool handleDatagram(const char* datagram, std::size_t length, int vendorId, int productId,
                        const std::string& watchedPath);

    int fd = -1;
    bool lost = false;
    Uevent lastEvent;
};
