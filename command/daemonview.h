#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// What root sees of a running daemon from outside: in /proc, in sysfs, and at its unit.

// The daemons: processes of its program file, also if that was replaced since. Sets `hidden` if
// there are none, but processes of its name into which this one may not look.
std::vector<pid_t> findDaemons(bool& hidden);

// Whether a signal has stopped the process until another one continues it.
bool isStopped(pid_t daemon);

// How much lies at the daemon's socket for events that it has not read, in bytes.
unsigned unreadEvents(pid_t daemon);

// Sends each daemon an event that tells it nothing, which ends its wait: it then looks at its
// files at once. Nothing else hears it. Where that may not be done, nothing happens.
void wakeDaemons();

// Whether the daemon reads the alarms file of this path: one of its strings is the path. True
// also if that cannot be found out.
bool readsFile(pid_t daemon, const std::string& path);

// A device with the USB IDs of a unit.
struct UsbDevice {
    std::string node;     // bus and device number, such as 001/004; empty for no device
    std::string file;     // to open it
    std::string product;  // these three are empty if it is gone
    std::string release;  // bcdDevice, such as 0600
    std::string authorized;
};

// Those that are attached.
std::vector<UsbDevice> attachedDevices();

// The one that the daemon has open.
UsbDevice openedDevice(pid_t daemon);

// The levels of the outputs: bit 0 is CBUS0, bit 1 CBUS1; -1 with errno if there is no answer
// within a second. Others may use the device meanwhile.
int readPins(const UsbDevice& device);

// The functions that its EEPROM gives CBUS0 (bits 0 to 3) and CBUS1 (4 to 7); -1 with errno.
int readCbusFunctions(const UsbDevice& device);
