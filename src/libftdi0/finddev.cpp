#include "finddev.h"

#include <usb.h>

#include <cassert>

bool findDev(struct usb_device* where, struct usb_device* dev, std::string& path) {
    assert(where && "where is null");
    if (where == dev) return true;
    for (int i = 0; i < where->num_children; ++i) {
        struct usb_device* child = where->children[i];
        if (child && findDev(child, dev, path)) {
            path.insert(0, path.empty() ? "" : "/").insert(0, child->filename);
            return true;
        }
    }
    return false;
}
