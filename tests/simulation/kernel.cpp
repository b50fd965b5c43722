#include "kernel.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "rules.h"

Kernel* kernel = nullptr;

namespace {

constexpr int lastNumber = 127;

// HUB_DEBOUNCE_STABLE and HUB_DEBOUNCE_STEP in drivers/usb/core/hub.c.
constexpr Time debounceStable = 100 * millisecond;
constexpr Time debounceStep = 25 * millisecond;

Time shortTime() { return world->between(5 * microsecond, 600 * microsecond); }

// The lock is held while strings and configuration are read and the drivers take the interface.
Time enumerationTime() {
    if (world->once(40)) return world->between(100 * millisecond, 3 * second);
    return world->between(200 * microsecond, world->once(2) ? 3 * millisecond : 120 * millisecond);
}

}  // namespace

std::string Device::fileName() const {
    const std::string digits = std::to_string(number);
    return std::string(3 - digits.size(), '0') + digits;
}

void Kernel::plug(Hub& hub, Port& port, Unit* unit) {
    world->note("        plug in %s at %s", unit->name, port.path.c_str());
    unit->driven = false;
    port.unit = unit;
    port.changed = true;
    port.since = world->now;
    world->after(world->between(millisecond, 30 * millisecond), [this, &hub] { work(hub); });
}

void Kernel::unplug(Hub& hub, Port& port) {
    world->note("        unplug %s at %s", port.unit->name, port.path.c_str());
    port.unit->driven = false;
    if (port.device) port.device->attached = false;
    if (port.unit->hub) {
        // What hangs on it is off as well.
        for (Port& below : port.unit->hub->ports) {
            if (below.unit) below.unit->driven = false;
            if (below.device) below.device->attached = false;
        }
    }
    port.unit = nullptr;
    port.changed = true;
    port.since = world->now;
    world->after(world->between(millisecond, 30 * millisecond), [this, &hub] { work(hub); });
}

// A step of the hub's worker, unless the hub is gone by then.
void Kernel::later(Hub& hub, Time delay, std::function<void()> what) const {
    world->after(delay, [&hub, generation = hub.generation, what = std::move(what)] {
        if (hub.generation == generation) what();
    });
}

// One worker for each hub, one port after the other (hub_event).
void Kernel::work(Hub& hub) {
    lastChange = world->now;
    if (hub.working || !hub.active) return;
    for (Port& port : hub.ports) {
        if (!port.changed) continue;
        hub.working = true;
        port.changed = false;
        if (port.device) {
            depart(std::exchange(port.device, nullptr), hub,
                   [this, &hub, &port] { debounce(hub, port); });
        } else {
            debounce(hub, port);
        }
        return;
    }
}

void Kernel::done(Hub& hub) {
    hub.working = false;
    work(hub);
}

// usb_disconnect: the children first, then the interface, then the device. device_del takes the
// node and the attributes away, then the driver lets go, and `remove` is the last.
void Kernel::depart(const DevicePointer& device, Hub& hub, const std::function<void()>& next) {
    lastChange = world->now;
    device->attached = false;
    if (device->unit->hub) {
        Hub& gone = *device->unit->hub;
        gone.active = gone.working = false;
        ++gone.generation;
        for (Port& port : gone.ports) {
            if (port.device) departAtOnce(std::exchange(port.device, nullptr));
        }
    }
    if (device->configured) {
        if (device->driverBound) sendOfDriver(*device, false);
        sendOfInterface(*device, "remove");
    }
    world->after(shortTime(), [this, &hub, device, next] {
        device->inSysfs = false;
        if (sendsBind) send(device, "unbind");
        world->after(shortTime(), [this, &hub, device, next] {
            send(device, "remove");
            devices.erase(std::find(devices.begin(), devices.end(), device));
            later(hub, 0, next);
        });
    });
}

void Kernel::departAtOnce(const DevicePointer& device) {
    device->attached = device->inSysfs = device->locked = false;
    if (device->configured) sendOfInterface(*device, "remove");
    if (sendsBind) send(device, "unbind");
    send(device, "remove");
    devices.erase(std::find(devices.begin(), devices.end(), device));
}

// hub_port_debounce: until the connection has been the same for 100 ms.
void Kernel::debounce(Hub& hub, Port& port) {
    lastChange = world->now;
    if (!port.unit) {
        done(hub);
    } else if (world->now - port.since < debounceStable) {
        later(hub, debounceStep, [this, &hub, &port] { debounce(hub, port); });
    } else {
        // hub_port_init: reset, address, device descriptor.
        later(hub, world->between(20 * millisecond, 80 * millisecond),
              [this, &hub, &port] { enumerate(hub, port); });
    }
}

// choose_devnum: the next free one, from the beginning again after 127.
int Kernel::chooseNumber(int bus) {
    const auto isTaken = [&](int number) {
        return number < 2 + occupied ||
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
void Kernel::enumerate(Hub& hub, Port& port) {
    lastChange = world->now;
    if (port.changed) return done(hub);
    const auto device = std::make_shared<Device>();
    device->unit = port.unit;
    device->bus = hub.bus;
    device->number = chooseNumber(hub.bus);
    device->path = port.path;
    port.device = device;
    devices.push_back(device);
    rules->attached(device);
    send(device, "add");
    const Time untilLocked = world->once(10) ? world->between(0, 3 * millisecond) : 0;
    if (untilLocked == 0) device->locked = true;
    later(hub, untilLocked, [this, &hub, &port, device] {
        device->locked = true;
        later(hub, enumerationTime(), [this, &hub, &port] { configure(hub, port); });
    });
}

// usb_set_configuration, which adds the interfaces; then the device itself is bound.
void Kernel::configure(Hub& hub, Port& port) {
    lastChange = world->now;
    const DevicePointer device = port.device;
    const auto bind = [this, &hub, device] {
        if (sendsBind) send(device, "bind");
        device->locked = false;
        done(hub);
    };
    if (!device->attached) return bind();  // a configuration that fails is no failure of the probe
    device->configured = true;
    if (sendsBind) send(device, "change");
    later(hub, shortTime(), [this, &hub, device, bind] {
        sendOfInterface(*device, "add");
        if (hasDriver && device->unit->isFt232()) {
            device->driverBound = true;
            sendOfDriver(*device, true);
        }
        if (device->unit->hub) {
            Hub& below = *device->unit->hub;
            below.active = true;
            for (Port& belowPort : below.ports) belowPort.changed = belowPort.unit != nullptr;
            world->after(world->between(100 * millisecond, 300 * millisecond),
                         [this, &below] { work(below); });
        }
        later(hub, shortTime(), bind);
    });
}

void Kernel::lockDevice(const DevicePointer& device) {
    world->wait([&] { return !device->locked; });
}

// usb_reset_device: the number stays, the interface's driver lets go and takes it again. If the
// descriptors are not the same afterwards, the device is attached anew.
void Kernel::reset(const DevicePointer& device) {
    if (!device->attached) return;
    device->unit->driven = false;
    world->pass(world->between(15 * millisecond, 60 * millisecond));
    if (!device->attached) return;
    if (sendsBind) {
        sendOfInterface(*device, "unbind");
        const int number = std::exchange(device->number, 0);  // between reset and address
        send(device, "change");
        device->number = number;
        send(device, "change");
    }
    if (hasDriver) {
        device->driverBound = true;
        sendOfDriver(*device, true);
    }
    lastChange = world->now;
}

void Kernel::detachDriver(const DevicePointer& device) {
    if (!device->driverBound) return;
    device->driverBound = false;
    sendOfDriver(*device, false);
}

DevicePointer Kernel::find(const std::string& node) const {
    for (const DevicePointer& device : devices) {
        if (device->inSysfs && device->node() == node) return device;
    }
    return nullptr;
}

void Kernel::trigger(const std::string& action) {
    for (const DevicePointer& device : std::vector<DevicePointer>(devices)) {
        if (!device->inSysfs) continue;
        device->triggered = true;
        send(device, action.c_str());
        sendOfInterface(*device, action.c_str());
    }
    otherEvents(3);
}

void Kernel::otherEvents(std::uint32_t count) {
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::string path = "/devices/virtual/tty/tty" + std::to_string(i);
        broadcast({"change@" + path + '\0' + "ACTION=change" + '\0' + "DEVPATH=" + path + '\0' +
                       "SUBSYSTEM=tty" + '\0' + "MAJOR=4" + '\0' + "DEVNAME=tty" + '\0',
                   "change", nullptr});
    }
}

// Documentation/ABI/testing/sysfs-uevent; usb_dev_uevent adds PRODUCT, TYPE, BUSNUM and DEVNUM.
void Kernel::send(const DevicePointer& device, const char* action) {
    std::string text = std::string(action) + "@" + device->path;
    for (const std::string& entry :
         {std::string("ACTION=") + action, "DEVPATH=" + device->path, std::string("SUBSYSTEM=usb"),
          std::string("MAJOR=189"), "DEVNAME=bus/usb/" + device->node(),
          std::string("DEVTYPE=usb_device"), std::string("PRODUCT=403/6001/600"),
          std::string("TYPE=0/0/0"), "BUSNUM=" + device->busName(),
          "DEVNUM=" + device->fileName()}) {
        text += '\0' + entry;
    }
    world->note("        %s of %s (%s)", action, device->node().c_str(), device->unit->name);
    broadcast({text + '\0', action, device});
}

void Kernel::sendOfInterface(const Device& device, const char* action) {
    const std::string path = device.path + "/interface";
    broadcast({std::string(action) + "@" + path + '\0' + "ACTION=" + action + '\0' +
                   "DEVPATH=" + path + '\0' + "SUBSYSTEM=usb" + '\0' + "DEVTYPE=usb_interface" +
                   '\0' + "PRODUCT=403/6001/600" + '\0',
               action, nullptr});
}

// usb-serial makes a port and a tty of each device.
void Kernel::sendOfDriver(const Device& device, bool comes) {
    const auto sendOne = [&](const char* action, const char* subsystem) {
        const std::string path = device.path + "/interface/" + subsystem;
        broadcast({std::string(action) + "@" + path + '\0' + "ACTION=" + action + '\0' +
                       "DEVPATH=" + path + '\0' + "SUBSYSTEM=" + subsystem + '\0',
                   action, nullptr});
    };
    if (comes) {
        sendOne("add", "usb-serial");
        sendOne("add", "tty");
        if (sendsBind) sendOne("bind", "usb-serial");
    } else {
        sendOne("remove", "tty");
        if (sendsBind) sendOne("unbind", "usb-serial");
        sendOne("remove", "usb-serial");
    }
    if (sendsBind) sendOfInterface(device, comes ? "bind" : "unbind");
}

// netlink_broadcast_deliver and netlink_overrun: what does not fit is dropped, which the socket
// reports once, and so is all that comes until the queue has been read empty (netlink_rcv_wake).
void Kernel::broadcast(Event event) {
    if (!isBound) return;
    if (congested || queue.size() >= room) {
        if (!congested) {
            congested = error = true;
            world->note("        events are lost");
        }
        rules->lost(event);
        return;
    }
    queue.push_back(std::move(event));
}

int Kernel::receive(char* buffer, std::size_t size) {
    // The error comes before what is queued (__skb_try_recv_datagram).
    int result = -1;
    if (std::exchange(error, false)) {
        rules->reportedLoss();
        errno = ENOBUFS;
    } else {
        const Event event = queue.front();
        queue.pop_front();
        rules->received(event);
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
