#include "uevent.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "logger.h"

namespace {

constexpr const char* sysfsRoot = "/sys";

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

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

bool Uevent::deviceStays() const {
    if (action == "remove" || !exists(sysfsDirectory + "/idVendor")) return false;
    // Its successor at the same port has the same directory in sysfs, but a device number, and so
    // a node, of its own. Older systems have the nodes in the second place.
    for (const std::string root : {"/dev/bus/usb/", "/proc/bus/usb/"}) {
        if (exists(root + busNumber)) return exists(root + nodePath());
    }
    return true;
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

std::string readFirstLine(const std::string& path) {
    std::string line;
    char* buffer = nullptr;
    std::size_t capacity = 0;
    std::FILE* file = std::fopen(path.c_str(), "r");
    if (file) errno = 0;  // an empty file sets none
    if (file && getdelim(&buffer, &capacity, '\n', file) >= 0) {
        line = buffer;
        if (!line.empty() && line.back() == '\n') line.pop_back();
    } else {
        logError("read file error: %s: %s", path.c_str(), std::strerror(errno));
    }
    std::free(buffer);
    if (file) std::fclose(file);
    return line;
}
