#include "uevent.h"

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
