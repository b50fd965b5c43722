#pragma once

#include <string>

// Searches the tree of libusb 0.1 below `where`, which must not be null, for `dev`, and puts the
// chain of device files that leads to it, joined by "/", before `path`. False when it is not there.
bool findDev(struct usb_device* where, struct usb_device* dev, std::string& path);
