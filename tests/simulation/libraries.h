#pragma once

#include <ftdi.h>
#include <usb.h>

#include <deque>
#include <vector>

#include "kernel.h"

// What libusb 0.1 keeps of the buses between two listings, and libftdi's lists.
class Libraries {
public:
    bool hasTree = true;  // libusb knows the root hubs and what hangs below them

    int list(ftdi_device_list** list, int vendor, int product);
    void freeList(ftdi_device_list** list);

    int elements = 0;  // of lists that are not freed
    unsigned char readBuffer = 0;

private:
    struct Record {
        struct usb_device device = {};
        DevicePointer of;
        std::vector<struct usb_device*> children;
        void setChildren();
    };
    Record& parentOf(const Record& record);

    std::deque<Record> devices;
    Record rootHubs[3];
    struct usb_bus buses[3] = {};
};

extern Libraries* libraries;
