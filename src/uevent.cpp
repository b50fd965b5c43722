#include "uevent.h"

#include <fcntl.h>
#include <unistd.h>

#include <string_view>

namespace {

constexpr const char* sysfsRoot = "/sys";

// Cuts the next token off the front of `text`, with strtok's rules for the delimiter "=": runs
// of it count as one, and there are no empty tokens but where nothing is left.
std::string_view nextToken(std::string_view& text) {
    const std::size_t begin = text.find_first_not_of('=');
    if (begin == std::string_view::npos) return {};
    text.remove_prefix(begin);
    const std::string_view token = text.substr(0, text.find('='));
    text.remove_prefix(token.size());
    return token;
}

}  // namespace

bool Uevent::deviceExists() const {
    return access((sysfsDirectory + "/idVendor").c_str(), F_OK) == 0;
}

bool Uevent::deviceIsConfigured() const {
    // Reading it takes the device's lock, which the kernel holds while it enumerates the device
    // (bConfigurationValue_show in drivers/usb/core/sysfs.c).
    const int file = open((sysfsDirectory + "/bConfigurationValue").c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) return false;
    char digit = '\0';
    const bool configured = read(file, &digit, 1) == 1 && digit != '\n';
    close(file);
    return configured;
}

Uevent parseUevent(const char* datagram, std::size_t length) {
    Uevent event;
    std::string_view rest(datagram, length);
    while (!rest.empty()) {
        std::string_view entry = rest.substr(0, rest.find('\0'));
        rest.remove_prefix(entry.size());
        if (!rest.empty()) rest.remove_prefix(1);

        const std::string_view key = nextToken(entry);
        const std::string_view value = nextToken(entry);
        if (key == "DEVTYPE") {
            event.usbDevice = value == "usb_device";
            if (!event.usbDevice) return event;
        } else if (key == "ACTION") {
            event.action = value;
        } else if (key == "DEVPATH") {
            event.sysfsDirectory = sysfsRoot;
            event.sysfsDirectory += value;
        } else if (key == "BUSNUM") {
            event.busNumber = value;
        } else if (key == "DEVNUM") {
            event.deviceNumber = value;
        }
    }
    return event;
}
