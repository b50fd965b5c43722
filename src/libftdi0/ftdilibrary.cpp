#include "ftdilibrary.h"

#include <usb.h>

#include "finddev.h"
#include "logger.h"

int initLibrary(ftdi_context& ftdi) { return ftdi_init(&ftdi); }

int listDevices(ftdi_context& ftdi, ftdi_device_list** list, int vendorId, int productId) {
    return ftdi_usb_find_all(&ftdi, list, vendorId, productId);
}

void endListing(ftdi_context&) {}

void handleEvents(ftdi_context&) {}

int openUnit(ftdi_context& ftdi, UsbDevice* dev) { return ftdi_usb_open_dev(&ftdi, dev); }

unsigned deviceRelease(UsbDevice* dev) { return dev->descriptor.bcdDevice; }

std::string deviceFile(UsbDevice* dev) {
    if (!dev->bus) return "";
    return std::string(dev->bus->dirname) + "/" + dev->filename;
}

std::string deviceNodePath(UsbDevice* dev) {
    std::string result;
    if (!dev->bus->root_dev) {
        result = deviceFile(dev);
    } else if (findDev(dev->bus->root_dev, dev, result)) {
        result = std::string(dev->bus->dirname) + "/" + result;
    }
    logDebug2("device node path: '%s'", result.c_str());
    return result;
}

void resetUnit(ftdi_context& ftdi) { usb_reset(ftdi.usb_dev); }
