#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "ftdilibrary.h"

// The alarm-output unit: an FT232R whose product string contains "TQ-5" and whose EEPROM gives
// CBUS0 and CBUS1 to bit-bang mode. Owns one libftdi context and at most one open unit; every
// failure is logged and told by a false result.
class TQ5Ftdi {
    // The library first: everything else is about what it has opened.
    ftdi_context ftdi;
    std::string description;  // the unit's product string

public:
    // The node path of the open unit, empty when none is open. For reading.
    std::string nodePath;

    // USB IDs of every FT232R.
    static constexpr int vendorId = 0x0403;
    static constexpr int productId = 0x6001;

    TQ5Ftdi();
    TQ5Ftdi(const TQ5Ftdi&) = delete;
    TQ5Ftdi& operator=(const TQ5Ftdi&) = delete;

    // Leaves bit-bang mode, closes an open unit and releases the context.
    virtual ~TQ5Ftdi();

    // Opens the first compatible unit among all attached ones. Only while none is open.
    bool openBySearch();

    // Opens the unit at this node path, as an event gives it, if it is compatible; an empty path
    // fails at once. Only while none is open.
    bool openByNodePath(const std::string& path);

    // Opens the first compatible unit among those attached, but passes over what has been turned
    // away three times since it was attached. Only while none is open.
    bool openNewcomer();

    // After openNewcomer: whether it has to be called again, because nothing could be listed, or
    // what was turned away may have been one that the kernel was still enumerating.
    bool needsRescan() const;

    // Drives CBUS0 (bit 0 of `value`) and CBUS1 (bit 1), 1 for high, and reads them back: true
    // only when they read as written. The unit stays open either way.
    bool setPins(std::uint8_t value);

    // Leaves bit-bang mode and closes the unit; without one only the message is logged.
    void close();

    // To be called after events of the kernel: forgets what was turned away and has left, and lets
    // the library handle hot-plug events of its own, which it keeps until then.
    void heedEvents();

    // Whether `nodePath` is as events give it, so that one reports the unit's removal. That of a
    // unit which a search found behind an external hub is not, nor that of one which is not in
    // libusb's tree.
    bool isNamedByEvents() const;

    // True when the open unit's device node below /dev/bus/usb (/proc/bus/usb on older systems)
    // was there at the opening and no longer is. Where there was none nothing can be told.
    bool isGone() const;

private:
    // Which of the listed devices an opening tries.
    enum class Choice { any, atPath, newcomers };

    // The translation of one of the driver's messages: gettext's lookup with the context
    // "TQ5Ftdi|". Without a translation the message itself.
    static const char* tr(const char* message) __attribute__((format_arg(1)));

    bool checkChipType(UsbDevice* dev);
    bool checkProduct(UsbDevice* dev);
    bool checkEeprom();
    bool openDevice(UsbDevice* dev);
    bool openListed(Choice choice, const std::string& path = "");
    bool isChosen(UsbDevice* dev, Choice choice, const std::string& path) const;
    void closeDevice(bool reset);

    std::string deviceNode;  // the file of the open unit below /dev, if it has one

    // How often an attached device was turned away, by its device node.
    std::map<std::string, int> refusals;
    bool listingFailed = false;  // the last one
};
