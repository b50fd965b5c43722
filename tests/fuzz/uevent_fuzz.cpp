// Parses any bytes as a uevent and compares the result with that of the plain C walk, strlen
// and strtok over a terminated copy. libFuzzer's buffer ends exactly at the input's last byte,
// so AddressSanitizer reports a look behind it.

#include "uevent.h"

#include <cstdint>
#include <cstring>
#include <string>

namespace {

Uevent parsePlainly(const char* data, std::size_t size) {
    std::string datagram(data, size);
    Uevent event;
    std::size_t offset = 0;
    while (offset < datagram.size()) {
        char* entry = datagram.data() + offset;
        offset += std::strlen(entry) + 1;
        const char* key = std::strtok(entry, "=");
        const char* token = key ? std::strtok(nullptr, "=") : nullptr;
        if (!key) continue;
        const std::string name = key;
        const std::string value = token ? token : "";
        if (name == "DEVTYPE") {
            event.usbDevice = value == "usb_device";
            if (!event.usbDevice) break;
        } else if (name == "ACTION") {
            event.action = value;
        } else if (name == "DEVPATH") {
            event.sysfsDirectory = "/sys" + value;
        } else if (name == "BUSNUM") {
            event.busNumber = value;
        } else if (name == "DEVNUM") {
            event.deviceNumber = value;
        }
    }
    return event;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const char* datagram = reinterpret_cast<const char*>(data);
    const Uevent event = parseUevent(datagram, size);
    const Uevent expected = parsePlainly(datagram, size);
    if (event.usbDevice != expected.usbDevice || event.action != expected.action ||
        event.sysfsDirectory != expected.sysfsDirectory || event.busNumber != expected.busNumber ||
        event.deviceNumber != expected.deviceNumber) {
        __builtin_trap();
    }
    return 0;
}
