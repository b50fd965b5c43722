#include "ftdilibrary.h"

#include <libusb.h>

#include <csignal>
#include <cstdio>

#include "logger.h"

namespace {

// While it lives, a thread that is started takes none of the process's signals: libusb starts one
// that watches for devices, and a stop signal that it took would not end the daemon's wait.
class SignalsBlocked {
    sigset_t before;

public:
    SignalsBlocked() : before() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
    }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
};

}  // namespace

// The first netlink socket of a process gets the process's ID as its address, which the daemon's
// own needs: so libusb's must not be open before the first search.
int initLibrary(ftdi_context& ftdi) {
    const SignalsBlocked blocked;
    const int result = ftdi_init(&ftdi);
    endListing(ftdi);
    return result;
}

// A context of libusb learns of arrivals from udev, later than this daemon does from the kernel
// and without udevd never. A new context looks at what the kernel has.
int listDevices(ftdi_context& ftdi, ftdi_device_list** list, int vendorId, int productId) {
    const SignalsBlocked blocked;
    // Without a buffer initLibrary has failed, as it does before the kernel's USB is there.
    if (!ftdi.readbuffer && initLibrary(ftdi) < 0) return -1;
    if (libusb_init(&ftdi.usb_ctx) != 0) {
        ftdi.error_str = "libusb_init() failed";
        return -1;
    }
    return ftdi_usb_find_all(&ftdi, list, vendorId, productId);
}

void endListing(ftdi_context& ftdi) {
    if (ftdi.usb_ctx) libusb_exit(ftdi.usb_ctx);
    ftdi.usb_ctx = nullptr;
}

void handleEvents(ftdi_context& ftdi) {
    // Larger than libusb's own on i386, whose times have 32 bits: zero is the same in both.
    timeval noWait = {};
    libusb_handle_events_timeout_completed(ftdi.usb_ctx, &noWait, nullptr);
}

// libftdi1 keeps open what it cannot learn the configuration of, as of a unit that leaves just
// then.
int openUnit(ftdi_context& ftdi, UsbDevice* dev) {
    const int result = ftdi_usb_open_dev(&ftdi, dev);
    if (result < 0 && ftdi.usb_dev) {
        const char* const reason = ftdi.error_str;
        ftdi_usb_close(&ftdi);  // has reasons of its own
        ftdi.error_str = reason;
    }
    return result;
}

unsigned deviceRelease(UsbDevice* dev) {
    libusb_device_descriptor descriptor = {};
    libusb_get_device_descriptor(dev, &descriptor);
    return descriptor.bcdDevice;
}

std::string deviceFile(UsbDevice* dev) {
    char file[sizeof "255/255"];
    std::snprintf(file, sizeof file, "%03u/%03u", libusb_get_bus_number(dev) & 0xffu,
                  libusb_get_device_address(dev) & 0xffu);
    return file;
}

std::string deviceNodePath(UsbDevice* dev) {
    std::string result = deviceFile(dev);
    logDebug2("device node path: '%s'", result.c_str());
    return result;
}

void resetUnit(ftdi_context& ftdi) { libusb_reset_device(ftdi.usb_dev); }
