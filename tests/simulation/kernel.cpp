#include "kernel.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "life.h"

Kernel kernel;

namespace {

constexpr int lastNumber = 127;
Unit stayingHub = {"hub", 0x05e3, 0x0608};

// HUB_DEBOUNCE_STABLE and HUB_DEBOUNCE_STEP in drivers/usb/core/hub.c.
constexpr Time debounceStable = 100 * millisecond;
constexpr Time debounceStep = 25 * millisecond;

Time shortTime() { return world.between(5 * microsecond, 600 * microsecond); }

// The lock is held while strings and configuration are read and the drivers take the interface.
Time enumerationTime() {
    if (world.once(40)) return world.between(100 * millisecond, 3 * second);
    return world.between(200 * microsecond, world.once(2) ? 3 * millisecond : 120 * millisecond);
}

}  // namespace

Kernel::Kernel() {
    const char* const above[] = {"/devices/usb1/1-", "/devices/usb2/2-", "/devices/usb1/1-3/1-3."};
    for (std::size_t i = 0; i < hubs.size(); ++i) {
        hubs[i].bus = i == 1 ? 2 : 1;
        for (std::size_t port = 0; port < hubs[i].ports.size(); ++port) {
            hubs[i].ports[port].hub = &hubs[i];
            hubs[i].ports[port].path = above[i] + std::to_string(port + 1);
        }
    }
    Port& port = hubs[0].ports[2];
    port.unit = &stayingHub;
    port.device = hubs[2].device = std::make_shared<Device>(Device{&stayingHub, &port, 2});
    devices.push_back(port.device);
}

void Kernel::connect(Port& port, Unit* unit) {
    world.note("        %s %s at %s", unit ? "plug in" : "draw", (unit ? unit : port.unit)->name,
               port.path.c_str());
    (unit ? unit : port.unit)->driven = false;
    if (port.device) port.device->attached = false;
    port.unit = unit;
    port.changed = true;
    port.since = lastChange = world.now;
    world.after(world.between(millisecond, 30 * millisecond), [=, &port] { work(*port.hub); });
}

std::string Device::busName() const { return "00" + std::to_string(port->hub->bus); }

void Kernel::done(Hub& hub) {
    hub.working = false;
    work(hub);
}

// One worker for each hub, one port after the other (hub_event).
void Kernel::work(Hub& hub) {
    for (Port& port : hub.ports) {
        if (hub.working || !port.changed) continue;
        hub.working = true;
        port.changed = false;
        port.device ? depart(port) : debounce(port);
    }
}

// usb_disconnect: the interface first, then the device. device_del takes the node and the
// attributes away, then the driver lets go, and `remove` is the last.
void Kernel::depart(Port& port) {
    const DevicePointer device = std::exchange(port.device, nullptr);
    if (device->configured) sendOfInterface(*device, "remove");
    world.after(shortTime(), [=, &port] {
        device->inSysfs = false;
        if (sendsBind) send(device, "unbind");
        world.after(shortTime(), [=, &port] {
            send(device, "remove");
            devices.erase(std::find(devices.begin(), devices.end(), device));
            debounce(port);
        });
    });
}

// hub_port_debounce, until the connection has been the same for 100 ms; then hub_port_init: reset,
// address, device descriptor.
void Kernel::debounce(Port& port) {
    if (!port.unit) {
        done(*port.hub);
    } else if (world.now - port.since < debounceStable) {
        world.after(debounceStep, [=, &port] { debounce(port); });
    } else {
        world.after(world.between(20 * millisecond, 80 * millisecond),
                    [=, &port] { enumerate(port); });
    }
}

// choose_devnum: the next free one, from the beginning again after 127.
int Kernel::chooseNumber(int bus) {
    const auto isTaken = [&](int number) {
        return std::any_of(devices.begin(), devices.end(), [&](const DevicePointer& device) {
            return device->port->hub->bus == bus && device->number == number;
        });
    };
    int& next = nextNumber[bus];
    while (isTaken(next)) next = next >= lastNumber ? 2 : next + 1;
    return std::exchange(next, next >= lastNumber ? 2 : next + 1);
}

// usb_new_device. device_add makes attributes and node and sends `add`; the driver's probe, which
// holds the device's lock, begins after that.
void Kernel::enumerate(Port& port) {
    if (port.changed) return done(*port.hub);
    const DevicePointer device = port.device =
        std::make_shared<Device>(Device{port.unit, &port, chooseNumber(port.hub->bus)});
    devices.push_back(device);
    device->atStart = !isBound;  // nobody is told of it
    // Until its `remove` is sent the open unit is there.
    const bool isOpen = std::find(devices.begin(), devices.end(), rules.open) != devices.end();
    device->second = rules.open && (isOpen || rules.open->unit != port.unit);
    send(device, "add");
    const Time untilLocked = world.once(10) ? world.between(0, 30 * millisecond) : 0;
    world.after(untilLocked, [=, &port] {
        device->locked = true;
        world.after(enumerationTime(), [=, &port] { configure(port); });
    });
}

// usb_set_configuration, which adds the interfaces; then the device itself is bound. That the
// configuration fails, as for want of power, is no failure of the probe.
void Kernel::configure(Port& port) {
    const DevicePointer device = port.device;
    device->configured = device->attached && device->unit->canBeConfigured;
    if (device->configured && sendsBind) send(device, "change");
    world.after(shortTime(), [=, &port] {
        if (device->configured) sendOfInterface(*device, "add");
        world.after(shortTime(), [=, &port] {
            if (sendsBind) send(device, "bind");
            device->locked = false;
            done(*port.hub);
        });
    });
}

void Kernel::lockDevice(const DevicePointer& device) {
    world.wait([&] { return !device->locked; });
}

// usb_reset_device: the number stays.
void Kernel::reset(const DevicePointer& device) {
    if (!device->attached) return;
    device->unit->driven = false;
    world.pass(world.between(15 * millisecond, 60 * millisecond));
    if (!device->attached) return;
    if (sendsBind) {
        sendOfInterface(*device, "unbind");
        const int number = std::exchange(device->number, 0);  // between reset and address
        send(device, "change");
        device->number = number;
        send(device, "change");
    }
}

DevicePointer Kernel::find(const std::string& node) const {
    for (const DevicePointer& device : devices) {
        if (device->inSysfs && device->node() == node) return device;
    }
    return nullptr;
}

void Kernel::trigger(const char* action) {
    for (const DevicePointer& device : devices) {
        if (!device->inSysfs) continue;
        device->triggered = true;
        send(device, action);
        sendOfInterface(*device, action);
    }
    otherEvents(3);
}

void Kernel::otherEvents(std::uint32_t count) {
    while (count-- > 0) broadcast("change", "/devices/virtual/tty/tty1", "SUBSYSTEM=tty");
}

// usb_dev_uevent adds BUSNUM and DEVNUM.
void Kernel::send(const DevicePointer& device, const std::string& action) {
    world.note("        %s of %s (%s)", action.c_str(), device->node().c_str(), device->unit->name);
    broadcast(action, device->port->path,
              "DEVTYPE=usb_device" + ('\0' + ("BUSNUM=" + device->busName())) + '\0' +
                  "DEVNUM=" + device->fileName(),
              device);
}

void Kernel::sendOfInterface(const Device& device, const std::string& action) {
    broadcast(action, device.port->path + "/interface", "DEVTYPE=usb_interface");
}

// netlink_broadcast_deliver and netlink_overrun: what does not fit is dropped, which the socket
// reports once, and so is all that comes until the queue has been read empty (netlink_rcv_wake).
void Kernel::broadcast(const std::string& action, const std::string& path,
                       const std::string& entries, const DevicePointer& device) {
    lastChange = world.now;
    if (!isBound) return;
    if (!congested && queue.size() < room) {
        queue.push_back({action + "@" + path + '\0' + "ACTION=" + action + '\0' +
                             "DEVPATH=" + path + '\0' + "SUBSYSTEM=usb" + '\0' + entries + '\0',
                         action, device});
        return;
    }
    if (!congested) world.note("        events are lost");
    error = error || !congested;
    congested = true;
    for (const DevicePointer& other : devices) other->eventsLost = true;
}

int Kernel::receive(char* buffer, std::size_t size) {
    // The error comes before what is queued (__skb_try_recv_datagram).
    int result = -1;
    if (std::exchange(error, false)) {
        ++rules.losses;
        rules.searches += 2;
        errno = ENOBUFS;
    } else {
        const Event event = queue.front();
        queue.pop_front();
        rules.received(event);
        const std::size_t length = std::min(size, event.text.size());
        std::memcpy(buffer, event.text.data(), length);
        result = static_cast<int>(length);
    }
    if (queue.empty()) congested = false;
    return result;
}

void Kernel::closeSocket() {
    isBound = congested = error = false;
    queue.clear();
}
