#pragma once

#include <array>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "world.h"

// What can be plugged in: a TQ-5, which is an FT232R, or another device.
struct Unit {
    const char* name = "TQ-5";
    int vendor = 0x0403;
    int product = 0x6001;
    int release = 0x0600;
    const char* text = "TQ-5 alarm unit";
    unsigned short eepromWord = 0x00aa;  // word 10: functions of CBUS0 and CBUS1
    bool answersStrings = true;
    bool canBeConfigured = true;

    // The pins (FTDI AN_232R-01): without CBUS bit-bang mode, after power on and after a reset of
    // the bus they are no outputs.
    bool driven = false;
    std::uint8_t levels = 0;
    Time refusesUntil = 0;  // vendor requests stall
    Time stuckUntil = 0;    // the pins read otherwise than written

    bool isFt232() const { return vendor == 0x0403 && product == 0x6001; }
    bool isTq5() const { return std::string(text).find("TQ-5") != std::string::npos; }
    bool isGood() const {
        return isFt232() && release == 0x0600 && isTq5() && (eepromWord & 0xff) == 0xaa &&
               answersStrings && canBeConfigured;
    }
};

// One attachment of a unit, as the kernel has it.
struct Device {
    Unit* unit = nullptr;
    struct Port* port = nullptr;
    int number = 0;
    bool inSysfs = true;      // attributes and device node are there
    bool attached = true;     // on the wire: it answers
    bool locked = false;      // its lock is held by the kernel
    bool configured = false;  // it has its interface

    // What the rules count of it, since it was attached and the daemon started.
    bool heard = false;  // its `add` was received
    bool eventsLost = false;
    bool triggered = false;     // an event that tells nothing new was made of it
    bool atStart = false;       // it was there when the daemon started
    bool second = false;        // another good unit was open meanwhile
    int tries = 0;              // refused openings
    int spoilt = 0;             // of these, by a fault that was put in
    int served = 0;             // openings that got as far as the pins
    bool drivenBefore = false;  // its outputs, by an earlier daemon that could not let go of them
    // A value that the unit took but that did not read back stays when the alarm state returns to
    // the one written before: so the pins may show it.
    bool doubtful = false;

    std::string busName() const;  // three digits, as the next
    std::string fileName() const { return std::to_string(1000 + number).substr(1); }
    std::string node() const { return busName() + "/" + fileName(); }
};
using DevicePointer = std::shared_ptr<Device>;

struct Port {
    struct Hub* hub = nullptr;
    std::string path;  // DEVPATH
    Unit* unit = nullptr;
    DevicePointer device;
    bool changed = false;
    Time since = 0;  // when a plug was last put in or drawn
};

struct Hub {
    int bus = 1;
    std::array<Port, 3> ports;
    bool working = false;  // its one worker is at a port (hub_event in drivers/usb/core/hub.c)
    DevicePointer device;  // none for a root hub
};

struct Event {         // Documentation/ABI/testing/sysfs-uevent
    std::string text;  // as the socket gives it
    std::string action;
    DevicePointer device;  // null unless it is one of a USB device
};

class Kernel {
public:
    Kernel();

    // What differs between systems; set before the first device is plugged in.
    bool sendsBind = true;  // since 4.14: change, bind and unbind
    std::size_t room = 3;   // how many events the socket's buffer holds
    bool showsTree = true;  // libusb finds the root hubs and what hangs below them
    std::string nodes = "/dev/bus/usb/";

    std::array<Hub, 3> hubs;             // two root hubs, and one at the first of them that stays
    std::vector<DevicePointer> devices;  // in sysfs or on the way out of it
    Time lastChange = 0;                 // when something last came, went or was told

    // Puts the plug of `unit` into a port, or, if null, draws the one that is there.
    void connect(Port& port, Unit* unit);

    void trigger(const char* action);  // `udevadm trigger`: an event of every device
    void otherEvents(std::uint32_t count);

    // USBDEVFS_RESET; a wait of the daemon for the device's lock.
    void reset(const DevicePointer& device);
    static void lockDevice(const DevicePointer& device);

    DevicePointer find(const std::string& node) const;

    bool isBound = false;  // the socket
    bool isReadable() const { return error || !queue.empty(); }
    int receive(char* buffer, std::size_t size);
    void closeSocket();

private:
    void work(Hub& hub);
    void depart(Port& port);
    void debounce(Port& port);
    void enumerate(Port& port);
    void configure(Port& port);
    int chooseNumber(int bus);

    void send(const DevicePointer& device, const std::string& action);
    void sendOfInterface(const Device& device, const std::string& action);
    void broadcast(const std::string& action, const std::string& path, const std::string& entries,
                   const DevicePointer& device = nullptr);
    void done(Hub& hub);

    std::deque<Event> queue;
    bool congested = false;
    bool error = false;
    int nextNumber[3] = {2, 2, 2};
};

extern Kernel kernel;
