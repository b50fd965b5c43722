#include "tq5ftdi.h"

#include <libintl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iterator>

#include "logger.h"

namespace {

constexpr unsigned ft232rRelease = 0x0600;  // bcdDevice of the FT232R family
constexpr const char* productMark = "TQ-5";
constexpr int productSize = 512;

// FT232R EEPROM: the low byte of word 10 (byte 0x14) holds the functions of CBUS0 (bits 0 to 3)
// and CBUS1 (bits 4 to 7).
constexpr int cbusFunctionsWord = 10;

// CBUS bit-bang mask: bits 4 to 7 are the directions of CBUS0 to CBUS3 (1 for output), bits 0
// to 3 their levels (FTDI AN_232R-01).
constexpr std::uint8_t cbus01Outputs = 0x30;
constexpr std::uint8_t cbus01Levels = 0x03;
constexpr std::uint8_t cbusLevels = 0x0F;

// A device that was turned away is tried again by a rescan, until it has been turned away so often:
// the first time the kernel may still have been enumerating it, and a failed opening resets it,
// which can overrun the event buffer and so cause the second rescan.
constexpr int maxRefusals = 3;

// The device node, in today's place or that of older systems; empty if there is none.
std::string findDeviceNode(UsbDevice* dev) {
    const std::string file = deviceFile(dev);
    if (file.empty()) return "";
    for (const char* root : {"/dev/bus/usb/", "/proc/bus/usb/"}) {
        std::string node = root + file;
        if (access(node.c_str(), F_OK) == 0) return node;
    }
    return "";
}

bool isMissing(const std::string& node) {
    return access(node.c_str(), F_OK) != 0 && errno == ENOENT;
}

}  // namespace

const char* TQ5Ftdi::tr(const char* message) {
    // 0x04 is gettext's separator between context and message.
    const std::string key = std::string("TQ5Ftdi|\x04") + message;
    const char* translation = gettext(key.c_str());
    return key == translation ? message : translation;
}

TQ5Ftdi::TQ5Ftdi() : ftdi() {
    if (initLibrary(ftdi) < 0) logError(tr("ftdi_init failed"));
}

TQ5Ftdi::~TQ5Ftdi() {
    close();
    if (ftdi.readbuffer) ftdi_deinit(&ftdi);
}

bool TQ5Ftdi::openBySearch() {
    logDebug2("search FTDI devices");
    return openListed(Choice::any);
}

bool TQ5Ftdi::openByNodePath(const std::string& path) {
    logDebug2("open FTDI device by node path: '%s'", path.c_str());
    if (path.empty()) return false;
    return openListed(Choice::atPath, path);
}

bool TQ5Ftdi::openNewcomer() {
    logDebug2("look for an FTDI device that arrived unheard");
    return openListed(Choice::newcomers);
}

bool TQ5Ftdi::needsRescan() const {
    for (const auto& entry : refusals) {
        if (entry.second < maxRefusals) return true;
    }
    return listingFailed;
}

// Opens the first compatible unit of those that are chosen from the library's list.
bool TQ5Ftdi::openListed(Choice choice, const std::string& path) {
    ftdi_device_list* list = nullptr;
    bool opened = false;
    const int count = listDevices(ftdi, &list, vendorId, productId);
    listingFailed = count < 0;
    if (count == 0) {
        logDebug2("FTDI device is not found");
    } else if (count < 0) {
        logError(tr("ftdi_usb_find_all failed: %s"), ftdi_get_error_string(&ftdi));
    } else {
        logDebug2("number of FTDI devices found: %d", count);
        const ftdi_device_list* element = list;
        for (int i = 0; i < count && !opened; ++i, element = element->next) {
            UsbDevice* dev = element->dev;
            logDebug2("checking device: %d", i);
            if (!isChosen(dev, choice, path)) continue;
            // Looked for before the opening: a unit that leaves during it must be noticed as well.
            const std::string node = findDeviceNode(dev);
            opened = checkChipType(dev) && openDevice(dev);
            if (!opened) {
                if (!node.empty()) ++refusals[node];
                continue;
            }
            refusals.erase(node);
            deviceNode = node;
            nodePath = choice == Choice::atPath ? path : deviceNodePath(dev);
            logInfo(tr("opened FTDI device '%s' (%s)"), description.c_str(), nodePath.c_str());
        }
    }
    if (list) ftdi_list_free(&list);
    if (!opened) endListing(ftdi);
    return opened;
}

// Units elsewhere are not even asked for their product string.
bool TQ5Ftdi::isChosen(UsbDevice* dev, Choice choice, const std::string& path) const {
    // Events name no hubs before a device.
    if (choice == Choice::atPath) return deviceNodePath(dev) == path || deviceFile(dev) == path;
    if (choice == Choice::any) return true;
    const auto entry = refusals.find(findDeviceNode(dev));
    return entry == refusals.end() || entry->second < maxRefusals;
}

bool TQ5Ftdi::checkChipType(UsbDevice* dev) {
    const unsigned release = deviceRelease(dev);
    if (release == ft232rRelease) return checkProduct(dev);
    logDebug1("FTDI device: unexpected chip type (bcdDevice = '%04X')", release);
    logWarning(tr("FTDI device is not compatible"));
    return false;
}

bool TQ5Ftdi::checkProduct(UsbDevice* dev) {
    char product[productSize] = "";
    if (ftdi_usb_get_strings(&ftdi, dev, nullptr, 0, product, productSize, nullptr, 0) < 0) {
        logError(tr("ftdi_usb_get_strings failed: %s"), ftdi_get_error_string(&ftdi));
        return false;
    }
    if (!strcasestr(product, productMark)) {
        logWarning(tr("unknown FTDI device '%s'"), product);
        return false;
    }
    description = product;
    return true;
}

bool TQ5Ftdi::openDevice(UsbDevice* dev) {
    if (openUnit(ftdi, dev) < 0) {
        logError(tr("unable to open ftdi device: %s"), ftdi_get_error_string(&ftdi));
        return false;
    }
    if (checkEeprom()) return true;
    closeDevice(true);
    return false;
}

bool TQ5Ftdi::checkEeprom() {
    unsigned short word = 0;
    if (ftdi_read_eeprom_location(&ftdi, cbusFunctionsWord, &word) < 0) {
        logError(tr("ftdi_read_eeprom failed: %s"), ftdi_get_error_string(&ftdi));
        return false;
    }
    const int cbus0 = word & 0x0F;
    const int cbus1 = (word >> 4) & 0x0F;
    if (cbus0 == CBUS_IOMODE && cbus1 == CBUS_IOMODE) return true;
    logError(tr("FTDI device '%s': cbus functions (cbus0=%d, cbus1=%d) are not configured"),
             description.c_str(), cbus0, cbus1);
    return false;
}

void TQ5Ftdi::closeDevice(bool reset) {
    if (!ftdi.usb_dev) return;
    if (ftdi.bitbang_enabled) ftdi_disable_bitbang(&ftdi);
    if (reset) resetUnit(ftdi);
    ftdi_usb_close(&ftdi);
    description.clear();
    nodePath.clear();
    deviceNode.clear();
}

void TQ5Ftdi::heedEvents() {
    // A device number comes back, after the others of its bus have been used.
    for (auto entry = refusals.begin(); entry != refusals.end();)
        entry = isMissing(entry->first) ? refusals.erase(entry) : std::next(entry);
    if (ftdi.usb_dev) handleEvents(ftdi);
}

bool TQ5Ftdi::isNamedByEvents() const {
    const std::size_t slash = nodePath.find('/');
    return slash + 1 < nodePath.size() && slash == nodePath.rfind('/');
}

bool TQ5Ftdi::isGone() const {
    if (deviceNode.empty() || !isMissing(deviceNode)) return false;
    logDebug2("device node %s is gone: unit removed without an event", deviceNode.c_str());
    return true;
}

bool TQ5Ftdi::setPins(std::uint8_t value) {
    const std::uint8_t mask = value | cbus01Outputs;
    logDebug2("using bitmask 0x%02x\n", static_cast<unsigned>(mask));
    const int result = ftdi_set_bitmode(&ftdi, mask, BITMODE_CBUS);
    if (result != 0) {
        logError(tr("ftdi_set_bitmode failed(%d) for 0x%02x: %s"), result,
                 static_cast<unsigned>(mask), ftdi_get_error_string(&ftdi));
        return false;
    }
    unsigned char pins = 0;
    if (ftdi_read_pins(&ftdi, &pins) < 0) {
        logError(tr("ftdi_read_pins failed: %s"), ftdi_get_error_string(&ftdi));
        return false;
    }
    logDebug2("current ftdi pins: 0x%02x\n", static_cast<unsigned>(pins & cbusLevels));
    const unsigned expected = value & cbus01Levels;
    const unsigned current = pins & cbus01Levels;
    if (expected == current) return true;
    logError(tr("set FTDI device pins failed: expected=%02x, current=%02x"), expected, current);
    return false;
}

void TQ5Ftdi::close() {
    logInfo(tr("close FTDI device '%s' (%s)"), description.c_str(), nodePath.c_str());
    closeDevice(false);
    endListing(ftdi);
}
