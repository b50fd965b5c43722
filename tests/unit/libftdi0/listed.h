#pragma once

#include <usb.h>

#include <cstring>

using ListedDevice = struct usb_device;

// The bus of all listed devices.
inline struct usb_bus listedBus = {};

inline void setFile(ListedDevice& device, const char* file) {
    std::strcpy(listedBus.dirname, "001");
    device.bus = &listedBus;
    std::strcpy(device.filename, file);
}

// Leaves the record incomplete.
inline void takeBus(ListedDevice& device) { device.bus = nullptr; }
