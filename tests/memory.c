/* Stands in for libftdi's unit, and for the system log, in a daemon that runs without either: one
 * unit that takes every value, and each line of the log on standard error. */
#include <ftdi.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <usb.h>

static struct usb_bus bus = {.dirname = "001"};
static struct usb_device unit = {.filename = "002", .bus = &bus, .descriptor.bcdDevice = 0x0600};
static unsigned char pins;

int ftdi_usb_find_all(struct ftdi_context *ftdi, struct ftdi_device_list **list, int vendor, int product) {
    bus.root_dev = &unit;
    *list = calloc(1, sizeof **list);
    (*list)->dev = &unit;
    return 1;
}

int ftdi_usb_get_strings(struct ftdi_context *ftdi, struct usb_device *dev, char *maker, int makerSize,
                         char *product, int productSize, char *serial, int serialSize) {
    strcpy(product, "TQ-5");
    return 0;
}

int ftdi_usb_open_dev(struct ftdi_context *ftdi, struct usb_device *dev) {
    ftdi->usb_dev = (void *)&unit;
    return 0;
}

int ftdi_read_eeprom_location(struct ftdi_context *ftdi, int address, unsigned short *word) {
    *word = 0x0aaa;
    return 0;
}

int ftdi_set_bitmode(struct ftdi_context *ftdi, unsigned char mask, unsigned char mode) {
    pins = mask & 3;
    return 0;
}

int ftdi_read_pins(struct ftdi_context *ftdi, unsigned char *value) {
    *value = pins;
    return 0;
}

void vsyslog(int priority, const char *format, va_list arguments) {
    vfprintf(stderr, format, arguments);
    fputc('\n', stderr);
}
