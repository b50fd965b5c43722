#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "unit.h"

// One attachment of a unit, as the kernel has it.
struct Device {
    Unit* unit = nullptr;
    int bus = 1;
    int number = 0;
    std::string path;         // DEVPATH
    bool inSysfs = true;      // attributes and device node are there
    bool attached = true;     // on the wire: it answers
    bool locked = false;      // its lock is held by the kernel
    bool configured = false;  // it has its interface
    bool driverBound = false;

    // What the rules count of it, since it was attached and the daemon started.
    bool heard = false;  // its `add` was received
    bool eventsLost = false;
    bool triggered = false;  // an event that tells nothing new was made of it
    bool atStart = false;    // it was there when the daemon started
    bool second = false;     // another good unit was open meanwhile
    bool doubtful = false;   // pins were set, and not confirmed
    int tries = 0;           // refused openings
    int spoilt = 0;          // of these, by a fault that was put in
    int served = 0;          // openings that got as far as the pins

    std::string busName() const { return "00" + std::to_string(bus); }
    std::string fileName() const;
    std::string node() const { return busName() + "/" + fileName(); }
};
using DevicePointer = std::shared_ptr<Device>;

struct Port {
    std::string path;
    Unit* unit = nullptr;
    DevicePointer device;
    bool changed = false;
    Time since = 0;  // when a plug was last put in or drawn
};

struct Hub {
    int bus = 1;
    std::vector<Port> ports;
    bool working = false;  // its one worker is at a port (hub_event in drivers/usb/core/hub.c)
    bool active = false;
    int generation = 0;
    DevicePointer device;  // none for a root hub
};

// A uevent in the socket's queue.
struct Event {
    std::string text;
    std::string action;
    DevicePointer device;  // null unless it is one of a USB device
};

class Kernel {
public:
    // What differs between systems; set before the first device is plugged in.
    bool sendsBind = true;   // since 4.14: change, bind and unbind
    bool hasDriver = false;  // ftdi_sio is loaded
    std::size_t room = 3;    // how many events the socket's buffer holds
    std::string nodes = "/dev/bus/usb/";
    int occupied = 0;  // of each bus's device numbers, by devices that stay

    // Puts the plug of `unit` into a port, or draws it.
    void plug(Hub& hub, Port& port, Unit* unit);
    void unplug(Hub& hub, Port& port);

    // `udevadm trigger`: an event of every device.
    void trigger(const std::string& action);
    void otherEvents(std::uint32_t count);

    // USBDEVFS_RESET.
    void reset(const DevicePointer& device);
    // USBDEVFS_DISCONNECT.
    void detachDriver(const DevicePointer& device);
    // Waits, as the daemon, for the device's lock.
    static void lockDevice(const DevicePointer& device);

    DevicePointer find(const std::string& node) const;

    // The socket.
    bool isBound = false;
    bool isReadable() const { return error || !queue.empty(); }
    int receive(char* buffer, std::size_t size);
    void closeSocket();

    std::vector<DevicePointer> devices;  // in sysfs or on the way out of it
    Time lastChange = 0;                 // when a worker was last busy

private:
    void work(Hub& hub);
    void later(Hub& hub, Time delay, std::function<void()> what) const;
    void depart(const DevicePointer& device, Hub& hub, const std::function<void()>& next);
    void departAtOnce(const DevicePointer& device);
    void debounce(Hub& hub, Port& port);
    void enumerate(Hub& hub, Port& port);
    void configure(Hub& hub, Port& port);
    void done(Hub& hub);
    int chooseNumber(int bus);

    void send(const DevicePointer& device, const char* action);
    void sendOfInterface(const Device& device, const char* action);
    void sendOfDriver(const Device& device, bool comes);
    void broadcast(Event event);

    std::deque<Event> queue;
    bool congested = false;
    bool error = false;
    int nextNumber[3] = {2, 2, 2};
};

extern Kernel* kernel;
