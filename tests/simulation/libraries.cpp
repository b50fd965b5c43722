// libftdi 0.20 on libusb 0.1, whose records of the buses last from one listing to the next.

#include <ftdi.h>
#include <usb.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <vector>

#include "life.h"

namespace {

struct Record {
    struct usb_device device = {};
    DevicePointer of;  // none for a root hub
    std::vector<struct usb_device*> children;
};

std::deque<Record> records;
struct usb_bus buses[3] = {};
unsigned char buffer = 0;

// usb_open opens the device node, which waits for the device's lock and fails for one that is not
// attached (usbdev_open in drivers/usb/core/devio.c).
DevicePointer openNode(const std::string& node) {
    const DevicePointer device = kernel.find(node);
    if (!device) return nullptr;
    Kernel::lockDevice(device);
    return device->attached && device->inSysfs ? device : nullptr;
}

// A vendor request to the open unit.
bool request(const Call& call) {
    if (!rules.open) world.fail("a request to a closed unit");
    return !call.fails && rules.open->attached && rules.open->unit->refusesUntil <= world.now;
}

// Newest device first. Asks hubs for their ports, which makes a tree below the root hub.
void findDevices() {
    records.clear();
    for (const int bus : {1, 2}) {
        std::snprintf(buses[bus].dirname, sizeof buses[bus].dirname, "00%d", bus);
        Record& root = records.emplace_back();
        root.device.bus = &buses[bus];
        buses[bus].root_dev = kernel.showsTree ? &root.device : nullptr;
    }
    const std::vector<DevicePointer> present(kernel.devices.rbegin(), kernel.devices.rend());
    for (const DevicePointer& device : present) {
        if (!openNode(device->node())) continue;
        Record& record = records.emplace_back();
        record.device.bus = &buses[device->port->hub->bus];
        record.of = device;
        std::strcpy(record.device.filename, device->fileName().c_str());
        record.device.descriptor.bcdDevice = static_cast<std::uint16_t>(device->unit->release);
    }
    for (Record& hub : records) {
        for (Record& record : records) {
            if (record.of && record.device.bus == hub.device.bus &&
                record.of->port->hub->device == hub.of)
                hub.children.push_back(&record.device);
        }
        hub.device.num_children = static_cast<unsigned char>(hub.children.size());
        hub.device.children = hub.children.data();
    }
}

}  // namespace

extern "C" {

int ftdi_init(ftdi_context* context) {
    *context = {};
    return 0;
}

void ftdi_deinit(ftdi_context*) {}

char* ftdi_get_error_string(ftdi_context*) {
    static char reason[] = "reason";
    return reason;
}

int ftdi_usb_find_all(ftdi_context*, ftdi_device_list** list, int vendor, int product) {
    rules.listing();
    const Call call("ftdi_usb_find_all", 200 * microsecond, 4 * millisecond);
    if (call.fails) {
        rules.searches += 2;
        for (const DevicePointer& device : kernel.devices) {
            device->tries = std::min(device->tries, 0);
            ++device->spoilt;
        }
        return -1;
    }
    findDevices();
    int count = 0;
    for (Record& record : records) {
        if (!record.of) continue;
        const Unit& unit = *record.of->unit;
        if (unit.vendor != vendor || unit.product != product) continue;
        ++count;
        *list = static_cast<ftdi_device_list*>(std::calloc(1, sizeof(ftdi_device_list)));
        (*list)->dev = &record.device;
        list = &(*list)->next;
    }
    process.lists += count;
    return count;
}

void ftdi_list_free(ftdi_device_list** list) {
    while (ftdi_device_list* element = *list) {
        *list = element->next;
        std::free(element);
        --process.lists;
    }
}

int ftdi_usb_get_strings(ftdi_context*, struct usb_device* record, char*, int, char* product,
                         int size, char*, int) {
    const Call call("ftdi_usb_get_strings", millisecond, 12 * millisecond);
    const DevicePointer device =
        openNode(std::string(record->bus->dirname) + "/" + record->filename);
    if (!device) return -4;
    if (call.fails || !device->unit->answersStrings) {
        rules.refused(device, call.fails);
        return -8;
    }
    std::snprintf(product, static_cast<std::size_t>(size), "%s", device->unit->text);
    if (!device->unit->isTq5()) rules.refused(device, false);
    return 0;
}

// usb_open, usb_detach_kernel_driver_np, usb_claim_interface, ftdi_usb_reset, ftdi_set_baudrate.
int ftdi_usb_open_dev(ftdi_context* context, struct usb_device* record) {
    const Call call("ftdi_usb_open_dev", 100 * microsecond, millisecond);
    if (context->usb_dev || rules.open) world.fail("opened while a unit is open");
    const DevicePointer device =
        openNode(std::string(record->bus->dirname) + "/" + record->filename);
    if (!device) return -4;
    const bool configured = device->configured;
    world.pass(world.between(2 * millisecond, 30 * millisecond));
    const bool spoilt = call.fails || device->unit->refusesUntil > world.now;
    if (spoilt || !configured || !device->attached) {
        rules.refused(device, spoilt);
        return -5;
    }
    context->usb_dev = reinterpret_cast<usb_dev_handle*>(&buffer);
    rules.opened(device);
    return 0;
}

int ftdi_read_eeprom_location(ftdi_context*, int location, unsigned short* word) {
    const Call call("ftdi_read_eeprom_location", millisecond, 5 * millisecond);
    if (!request(call)) {
        rules.refused(rules.open, true);
        return -1;
    }
    *word = location == 10 ? rules.open->unit->eepromWord : 0;
    (*word & 0xff) == 0xaa ? rules.accepted() : rules.refused(rules.open, false);
    return 0;
}

int ftdi_set_bitmode(ftdi_context* context, unsigned char mask, unsigned char mode) {
    const Call call("ftdi_set_bitmode", millisecond, 5 * millisecond);
    if (!request(call)) return -1;
    context->bitbang_enabled = 1;
    Unit& unit = *rules.open->unit;
    unit.driven = mode == BITMODE_CBUS && (mask & 0xf0) == 0x30;
    unit.levels = mask & 0x03;
    rules.open->doubtful = true;
    return 0;
}

int ftdi_read_pins(ftdi_context*, unsigned char* pins) {
    const Call call("ftdi_read_pins", millisecond, 5 * millisecond);
    if (!request(call)) return -1;
    const bool stuck = rules.open->unit->stuckUntil > world.now;
    rules.open->doubtful = stuck;
    *pins = static_cast<unsigned char>((rules.open->unit->levels ^ (stuck ? 1 : 0)) | 0x0c);
    return 0;
}

int ftdi_disable_bitbang(ftdi_context* context) {
    const Call call("ftdi_disable_bitbang", millisecond, 5 * millisecond);
    if (!request(call)) {
        ++rules.open->spoilt;
        return -1;
    }
    context->bitbang_enabled = 0;
    rules.open->unit->driven = false;
    return 0;
}

int usb_reset(usb_dev_handle*) {
    const Call call("usb_reset", microsecond, millisecond);
    kernel.reset(rules.open);
    return 0;
}

int ftdi_usb_close(ftdi_context* context) {
    const Call call("ftdi_usb_close", 100 * microsecond, millisecond);
    context->usb_dev = nullptr;
    rules.open = nullptr;
    return 0;
}
}
