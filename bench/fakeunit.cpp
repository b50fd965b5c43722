// Preloaded before libftdi and libusb: one unit that is always attached and does as it is told
// without a system call, so that the daemon's own ones can be counted on any machine.

#include <ftdi.h>
#include <usb.h>

#include <cstring>

namespace {

usb_bus bus;
struct usb_device unit;
ftdi_device_list units = {nullptr, &unit};
unsigned char readBuffer;
unsigned char levels;

}  // namespace

extern "C" {

int ftdi_init(ftdi_context* ftdi) {
    ftdi->readbuffer = &readBuffer;
    return 0;
}

void ftdi_deinit(ftdi_context*) {}
void ftdi_list_free(ftdi_device_list**) {}
char* ftdi_get_error_string(ftdi_context* ftdi) { return ftdi->error_str; }

int ftdi_usb_find_all(ftdi_context*, ftdi_device_list** list, int, int) {
    std::strcpy(bus.dirname, "001");
    std::strcpy(unit.filename, "004");
    unit.bus = &bus;
    unit.descriptor.bcdDevice = 0x0600;
    *list = &units;
    return 1;
}

int ftdi_usb_get_strings(ftdi_context*, struct usb_device*, char*, int, char* description, int,
                         char*, int) {
    std::memcpy(description, "TQ-5", sizeof "TQ-5");
    return 0;
}

int ftdi_usb_open_dev(ftdi_context*, struct usb_device*) { return 0; }
int ftdi_usb_close(ftdi_context*) { return 0; }

int ftdi_read_eeprom_location(ftdi_context*, int, unsigned short* eeprom_val) {
    *eeprom_val = 0x00aa;
    return 0;
}

int ftdi_set_bitmode(ftdi_context*, unsigned char mask, unsigned char) {
    levels = mask & 0x0f;
    return 0;
}

int ftdi_read_pins(ftdi_context*, unsigned char* pins) {
    *pins = levels;
    return 0;
}

int ftdi_disable_bitbang(ftdi_context*) { return 0; }
int usb_reset(usb_dev_handle*) { return 0; }
}
