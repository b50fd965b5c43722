#pragma once

#include <cstddef>
#include <optional>
#include <string>

// What the daemon reads of one kernel uevent, a run of NUL-terminated strings of the form
// key=value (Documentation/ABI/testing/sysfs-uevent of the kernel names the keys). Texts are
// as the kernel wrote them, empty where the event has no such entry.
struct Uevent {
    bool usbDevice = true;              // false: DEVTYPE is something else than "usb_device"
    std::optional<std::string> action;  // ACTION: add, remove, change, bind, unbind and so on
    std::string sysfsDirectory;         // "/sys" and DEVPATH
    std::string busNumber;              // BUSNUM, three digits
    std::string deviceNumber;           // DEVNUM, three digits

    // BUSNUM/DEVNUM, for example 001/004.
    std::string nodePath() const { return busNumber + "/" + deviceNumber; }

    // Whether the event is no removal, and its device is still attached: in sysfs, and with its
    // device node where the bus has any.
    bool deviceStays() const;

    // Whether the kernel has enumerated the device, and so has sent all events of its arrival.
    // Blocks while the kernel is enumerating it. False where sysfs does not tell.
    bool deviceIsConfigured() const;
};

// Parses the `length` bytes of a datagram; looks at nothing behind them, and skips entries that
// it does not know or that have no key. Stops at a DEVTYPE other than "usb_device", so that
// what follows it stays empty.
Uevent parseUevent(const char* datagram, std::size_t length);

// The first line of the file at `path` without its line feed; empty, after logging why, when
// the file cannot be read or has no line.
std::string readFirstLine(const std::string& path);
