#pragma once

#include <libusb.h>

#include <cstring>

// libusb keeps the real record to itself.
struct libusb_device {
    struct libusb_device_descriptor descriptor;
    char filename[4];
};

using ListedDevice = struct libusb_device;

inline void setFile(ListedDevice& device, const char* file) { std::strcpy(device.filename, file); }

// These records are never incomplete.
inline void takeBus(ListedDevice&) {}
