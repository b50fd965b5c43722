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
    const char* const above[] = {"/devices/usb1/1-", "/devices/usb2/2-", "/devices/usb1/1-4/1-4."};
    for (std::size_t i = 0; i < hubs.size(); ++i) {
        hubs[i].bus = i == 1 ? 2 : 1;
        for (std::size_t port = 0; port < hubs[i].ports.size(); ++port) {
            hubs[i].ports[port].hub = &hubs[i];
            hubs[i].ports[port].path = above[i] + std::to_string(port + 1);
        }
    }
    hubs[2].device = std::make_shared<Device>();
    hubs[2].device->unit = &stayingHub;
    hubs[2].device->hub = &hubs[0];
    hubs[2].device->number = 2;
    hubs[2].device->path = "/devices/usb1/1-4";
    devices.push_back(hubs[2].device);
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
        port.hub->working = false;
        work(*port.hub);
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
        return number < 2 ||
               std::any_of(devices.begin(), devices.end(), [&](const DevicePointer& device) {
                   return device->bus == bus && device->number == number;
               });
    };
    int& next = nextNumber[bus];
    while (isTaken(next)) next = next >= lastNumber ? 1 : next + 1;
    return std::exchange(next, next >= lastNumber ? 1 : next + 1);
}

// usb_new_device. device_add makes attributes and node and sends `add`; the driver's probe, which
// holds the device's lock, begins after that.
void Kernel::enumerate(Port& port) {
    if (port.changed) {
        port.hub->working = false;
        return work(*port.hub);
    }
    const auto device = std::make_shared<Device>();
    device->unit = port.unit;
    device->hub = port.hub;
    device->bus = port.hub->bus;
    device->number = chooseNumber(device->bus);
    device->path = port.path;
    port.device = device;
    devices.push_back(device);
    rules.attached(device);
    send(device, "add");
    const Time untilLocked = world.once(10) ? world.between(0, 3 * millisecond) : 0;
    device->locked = untilLocked == 0;
    world.after(untilLocked, [=, &port] {
        device->locked = true;
        world.after(enumerationTime(), [=, &port] { configure(port); });
    });
}

// usb_set_configuration, which adds the interfaces; then the device itself is bound. That the
// configuration fails is no failure of the probe.
void Kernel::configure(Port& port) {
    const DevicePointer device = port.device;
    device->configured = device->attached;
    if (device->configured && sendsBind) send(device, "change");
    world.after(shortTime(), [=, &port] {
        if (device->configured) sendOfInterface(*device, "add");
        world.after(shortTime(), [=, &port] {
            if (sendsBind) send(device, "bind");
            device->locked = false;
            port.hub->working = false;
            work(*port.hub);
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
    while (count-- > 0) sendOfPart("/devices/virtual/tty/tty1", "change", "SUBSYSTEM=tty");
}

// Documentation/ABI/testing/sysfs-uevent; usb_dev_uevent adds PRODUCT, TYPE, BUSNUM and DEVNUM.
void Kernel::send(const DevicePointer& device, const std::string& action) {
    std::string text = action + "@" + device->path;
    for (const std::string& entry :
         {"ACTION=" + action, "DEVPATH=" + device->path, std::string("SUBSYSTEM=usb"),
          std::string("MAJOR=189"), "DEVNAME=bus/usb/" + device->node(),
          std::string("DEVTYPE=usb_device"), std::string("PRODUCT=403/6001/600"),
          std::string("TYPE=0/0/0"), "BUSNUM=" + device->busName(),
          "DEVNUM=" + device->fileName()}) {
        text += '\0' + entry;
    }
    world.note("        %s of %s (%s)", action.c_str(), device->node().c_str(), device->unit->name);
    broadcast({text + '\0', action, device});
}

void Kernel::sendOfPart(const std::string& path, const std::string& action,
                        const std::string& entry) {
    broadcast({action + "@" + path + '\0' + "ACTION=" + action + '\0' + "DEVPATH=" + path + '\0' +
                   entry + '\0',
               action, nullptr});
}

void Kernel::sendOfInterface(const Device& device, const std::string& action) {
    sendOfPart(device.path + "/interface", action, "DEVTYPE=usb_interface");
}

// netlink_broadcast_deliver and netlink_overrun: what does not fit is dropped, which the socket
// reports once, and so is all that comes until the queue has been read empty (netlink_rcv_wake).
void Kernel::broadcast(const Event& event) {
    lastChange = world.now;
    if (!isBound) return;
    if (!congested && queue.size() < room) return queue.push_back(event);
    if (!congested) world.note("        events are lost");
    error = error || !congested;
    congested = true;
    rules.lost(event);
}

int Kernel::receive(char* buffer, std::size_t size) {
    // The error comes before what is queued (__skb_try_recv_datagram).
    int result = -1;
    if (std::exchange(error, false)) {
        rules.reportedLoss();
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
