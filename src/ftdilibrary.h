#pragma once

#include <ftdi.h>

#include <string>
#include <type_traits>

// What the driver needs of libftdi and libusb that differs between libftdi 0.20 (libftdi0/) and
// libftdi1 (libftdi1/). A build has one of the two.

// A device as the library lists it: usb_device of libusb 0.1, or libusb_device of libusb 1.0.
using UsbDevice = std::remove_pointer_t<decltype(ftdi_device_list::dev)>;

// ftdi_init. What it starts takes none of the process's signals.
int initLibrary(ftdi_context& ftdi);

// ftdi_usb_find_all, of what is attached now. Only while no unit is open.
int listDevices(ftdi_context& ftdi, ftdi_device_list** list, int vendorId, int productId);

// Ends what listDevices began. Only while no unit is open, and after the list is freed.
void endListing(ftdi_context& ftdi);

// Handles what libusb 1.0 has noted of devices that came or went, and keeps until then. Only while
// a unit is open.
void handleEvents(ftdi_context& ftdi);

// ftdi_usb_open_dev. A failure leaves nothing open.
int openUnit(ftdi_context& ftdi, UsbDevice* dev);

// The device's release number, bcdDevice of its descriptor.
unsigned deviceRelease(UsbDevice* dev);

// Bus directory and device file, by which libusb opens the device: below /dev/bus/usb also the
// path of its device node. Empty for a record without a bus, which has no such file.
std::string deviceFile(UsbDevice* dev);

// The node path of a listed device, as uevents give it: bus directory, "/", device file (for
// example 001/004). With libftdi 0.20 the hub's file stands between the two behind an external
// hub, and it is empty when the device is not in its bus's tree.
std::string deviceNodePath(UsbDevice* dev);

// Resets the open unit on the bus.
void resetUnit(ftdi_context& ftdi);
