// Parses any bytes as a uevent, whose fields keep their promises. libFuzzer's buffer ends exactly
// at the input's last byte, so AddressSanitizer reports a look behind it.

#include "uevent.h"

#include <cstdint>
#include <string>

namespace {

void check(bool holds) {
    if (!holds) __builtin_trap();
}

// A field holds what stands in the datagram behind the first "=" of its entry, up to the next.
bool stands(const std::string& value, const std::string& key, const std::string& datagram) {
    return value.find_first_of(std::string("=\0", 2)) == std::string::npos &&
           (value.empty() || (datagram.find(key) != std::string::npos &&
                              datagram.find("=" + value) != std::string::npos));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string datagram(reinterpret_cast<const char*>(data), size);
    const Uevent event = parseUevent(reinterpret_cast<const char*>(data), size);
    check(stands(event.action.value_or(""), "ACTION", datagram));
    check(stands(event.busNumber, "BUSNUM", datagram));
    check(stands(event.deviceNumber, "DEVNUM", datagram));
    if (!event.sysfsDirectory.empty()) {
        check(event.sysfsDirectory.rfind("/sys", 0) == 0);
        check(stands(event.sysfsDirectory.substr(4), "DEVPATH", datagram));
    }
    check(event.usbDevice || datagram.find("DEVTYPE") != std::string::npos);
    return 0;
}
