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

    // Whether the device is in sysfs now.
    bool deviceExists() const;

    // Whether the kernel has enumerated it: waits as long as it is at it, and has sent by then
    // what it sends for an arrival. False too where sysfs does not tell.
    bool deviceIsConfigured() const;
};

// Parses the `length` bytes of a datagram; looks at nothing behind them, and skips entries that
// it does not know or that have no key. Stops at a DEVTYPE other than "usb_device", so that
// what follows it stays empty.
Uevent parseUevent(const char* datagram, std::size_t length);
