// libftdi 0.20 on libusb 0.1.

#include <ftdi.h>
#include <usb.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>

#include "libraries.h"
#include "rules.h"

Libraries* libraries = nullptr;

namespace {

struct Call : Outside {
    Call(const char* name, Time least, Time most) : fails(rules->spoil(name)) {
        world->pass(world->between(least, most));
    }
    const bool fails;
};

// usb_open opens the device node, which waits for the device's lock and fails for one that is not
// attached (usbdev_open in drivers/usb/core/devio.c).
DevicePointer openNode(const std::string& node) {
    const DevicePointer device = kernel->find(node);
    if (!device) return nullptr;
    Kernel::lockDevice(device);
    return device->attached && device->inSysfs ? device : nullptr;
}

DevicePointer openNode(const struct usb_device* record) {
    return openNode(std::string(record->bus->dirname) + "/" + record->filename);
}

// A vendor request to the open unit.
bool request(const Call& call) {
    const DevicePointer& device = rules->open;
    if (!device) world->fail("a request to a closed unit");
    return !call.fails && device->attached && device->unit->refusesUntil <= world->now;
}

}  // namespace

extern "C" {

int ftdi_init(ftdi_context* context) {
    const Call call("ftdi_init", microsecond, millisecond);
    context->usb_dev = nullptr;
    context->bitbang_enabled = 0;
    context->readbuffer = &libraries->readBuffer;
    return 0;
}

void ftdi_deinit(ftdi_context* context) { context->readbuffer = nullptr; }

char* ftdi_get_error_string(ftdi_context*) {
    static char reason[] = "reason";
    return reason;
}

// usb_find_devices reads the descriptor of each device node, newest device first, and asks hubs
// for their ports, which makes a tree below the root hub.
int ftdi_usb_find_all(ftdi_context*, ftdi_device_list** list, int vendor, int product) {
    rules->listing();
    const Call call("ftdi_usb_find_all", 200 * microsecond, 4 * millisecond);
    if (call.fails) {
        rules->listingFailed();
        return -1;
    }
    return libraries->list(list, vendor, product);
}

void ftdi_list_free(ftdi_device_list** list) {
    const Outside outside;
    libraries->freeList(list);
}

int ftdi_usb_get_strings(ftdi_context*, struct usb_device* record, char*, int, char* product,
                         int size, char*, int) {
    const Call call("ftdi_usb_get_strings", millisecond, 12 * millisecond);
    const DevicePointer device = openNode(record);
    if (!device) return -4;
    if (call.fails || !device->unit->answersStrings || !device->attached) {
        rules->refused(device, call.fails);
        return -8;
    }
    std::snprintf(product, static_cast<std::size_t>(size), "%s", device->unit->text.c_str());
    if (device->unit->text.find("TQ-5") == std::string::npos) rules->refused(device, false);
    return 0;
}

// usb_open, usb_detach_kernel_driver_np, usb_claim_interface, ftdi_usb_reset, ftdi_set_baudrate.
int ftdi_usb_open_dev(ftdi_context* context, struct usb_device* record) {
    const Call call("ftdi_usb_open_dev", 100 * microsecond, millisecond);
    if (context->usb_dev || rules->open) world->fail("opened while a unit is open");
    const DevicePointer device = openNode(record);
    if (!device) return -4;
    kernel->detachDriver(device);
    const bool canBeOpened = device->unit->canBeOpened && device->configured;
    world->pass(world->between(2 * millisecond, 30 * millisecond));
    if (call.fails || !canBeOpened || !device->attached ||
        device->unit->refusesUntil > world->now) {
        rules->refused(device, call.fails || device->unit->refusesUntil > world->now);
        return -5;
    }
    context->usb_dev = reinterpret_cast<usb_dev_handle*>(&libraries->readBuffer);
    rules->opened(device);
    return 0;
}

int ftdi_read_eeprom_location(ftdi_context*, int location, unsigned short* word) {
    const Call call("ftdi_read_eeprom_location", millisecond, 5 * millisecond);
    if (!request(call)) {
        rules->refused(rules->open, true);
        return -1;
    }
    *word = location == 10 ? rules->open->unit->eepromWord : 0;
    if ((*word & 0xff) != 0xaa) rules->refused(rules->open, false);
    return 0;
}

int ftdi_set_bitmode(ftdi_context* context, unsigned char mask, unsigned char mode) {
    const Call call("ftdi_set_bitmode", millisecond, 5 * millisecond);
    rules->pinsSet();
    if (!request(call)) return -1;
    context->bitbang_enabled = 1;
    Unit& unit = *rules->open->unit;
    unit.driven = mode == BITMODE_CBUS && (mask & 0xf0) == 0x30;
    unit.levels = mask & 0x03;
    rules->open->doubtful = true;
    return 0;
}

int ftdi_read_pins(ftdi_context*, unsigned char* pins) {
    const Call call("ftdi_read_pins", millisecond, 5 * millisecond);
    if (!request(call)) return -1;
    const Unit& unit = *rules->open->unit;
    rules->open->doubtful = unit.stuckUntil > world->now;
    *pins = static_cast<unsigned char>(unit.levels ^ (unit.stuckUntil > world->now ? 1 : 0)) | 0x0c;
    return 0;
}

int ftdi_disable_bitbang(ftdi_context* context) {
    const Call call("ftdi_disable_bitbang", millisecond, 5 * millisecond);
    if (!request(call)) {
        ++rules->open->spoilt;
        return -1;
    }
    context->bitbang_enabled = 0;
    rules->open->unit->driven = false;
    return 0;
}

int usb_reset(usb_dev_handle*) {
    const Call call("usb_reset", microsecond, millisecond);
    kernel->reset(rules->open);
    return 0;
}

int ftdi_usb_close(ftdi_context* context) {
    const Call call("ftdi_usb_close", 100 * microsecond, millisecond);
    context->usb_dev = nullptr;
    rules->closed();
    return 0;
}
}

int Libraries::list(ftdi_device_list** list, int vendor, int product) {
    devices.clear();
    const std::vector<DevicePointer> present(kernel->devices.rbegin(), kernel->devices.rend());
    for (int bus = 1; bus <= 2; ++bus) {
        std::strcpy(buses[bus].dirname, ("00" + std::to_string(bus)).c_str());
        Record& root = rootHubs[bus];
        root.children.clear();
        buses[bus].root_dev = hasTree ? &root.device : nullptr;
    }
    for (const DevicePointer& device : present) {
        if (!device->inSysfs || !openNode(device->node())) continue;
        devices.emplace_back();
        Record& record = devices.back();
        record.of = device;
        record.device.bus = &buses[device->bus];
        std::strcpy(record.device.filename, device->fileName().c_str());
        record.device.descriptor.bcdDevice = static_cast<std::uint16_t>(device->unit->release);
    }
    int count = 0;
    for (Record& record : devices) {
        parentOf(record).children.push_back(&record.device);
        if (record.of->unit->vendor != vendor || record.of->unit->product != product) continue;
        ++count;
        ++elements;
        *list = static_cast<ftdi_device_list*>(std::calloc(1, sizeof(ftdi_device_list)));
        (*list)->dev = &record.device;
        list = &(*list)->next;
    }
    for (int bus = 1; bus <= 2; ++bus) rootHubs[bus].setChildren();
    for (Record& record : devices) record.setChildren();
    return count;
}

Libraries::Record& Libraries::parentOf(const Record& record) {
    const std::string& path = record.of->path;
    for (Record& hub : devices) {
        if (hub.of->unit->hub && path.compare(0, path.rfind('/'), hub.of->path) == 0) return hub;
    }
    return rootHubs[record.of->bus];
}

void Libraries::Record::setChildren() {
    device.num_children = static_cast<unsigned char>(children.size());
    device.children = children.data();
}

void Libraries::freeList(ftdi_device_list** list) {
    while (ftdi_device_list* element = *list) {
        *list = element->next;
        std::free(element);
        --elements;
    }
}
