#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "eeprom.h"
#include "usbip.h"

// What a plug command can choose of a unit.
struct UnitOptions {
    std::string product = "TQ-5 alarm unit";  // printable ASCII, at most maxProductLength
    std::uint16_t bcdDevice = 0x0600;         // 0600 is the FT232R
    std::uint16_t cbusFunctions = 0x10aa;     // four bits each from CBUS0 up
};

// What the factory puts into the EEPROM (FT232R datasheet, table 8.1): CBUS0 to CBUS3 are TXLED#,
// RXLED#, TXDEN and PWREN#.
constexpr char factoryProduct[] = "FT232R USB UART";
constexpr std::uint16_t factoryCbusFunctions = 0x1023;

// What the EEPROM has room for beside a serial number of eight characters.
constexpr std::size_t maxProductLength = Eeprom::maxStringsLength - 8;

enum class Level { low, high, floating };

struct ControlReply {
    bool stalled = false;
    Bytes data;         // for the host, at most as long as it asked
    std::string event;  // what happened, for a reader; empty when it is of no interest
};

// An FT232R as it looks through its control endpoint. Knows no kernel and no socket.
class Unit {
public:
    Unit(const UnitOptions& options, unsigned number);

    // The unit gets power: it forgets all but its EEPROM, and goes by what that holds now, or by
    // the factory's settings if its checksum is wrong.
    void powerUp();

    std::string product() const;
    std::uint16_t cbusFunctions() const { return loaded.word(Eeprom::cbusFunctionsWord); }
    std::uint16_t bcdDevice() const { return release; }

    // Answers a request: the standard ones, and the vendor requests of libftdi.
    ControlReply control(const SetupPacket& setup);

    // The level that the unit drives on CBUS0 to CBUS3; floating when it does not drive the pin.
    Level cbus(unsigned pin) const;

    // Stalls this vendor request from now on; nothing stalls without a value.
    void stall(std::optional<std::uint8_t> request) { state.stalledRequest = request; }

    // Makes a read of the pins return this byte; without a value, the levels again.
    void forcePins(std::optional<std::uint8_t> pins) { state.forcedPins = pins; }

private:
    // What the unit forgets without power.
    struct State {
        std::uint8_t configuration = 0;
        std::uint8_t latencyTimerMs = 16;
        std::uint8_t bitMode = 0;
        std::uint8_t bitMask = 0;
        std::optional<std::uint8_t> stalledRequest;
        std::optional<std::uint8_t> forcedPins;
    };

    ControlReply standardRequest(const SetupPacket& setup);
    ControlReply vendorRequest(const SetupPacket& setup);
    ControlReply descriptor(std::uint16_t typeAndIndex) const;
    std::uint8_t levels() const;

    std::uint16_t release;
    Eeprom eeprom;
    Eeprom factory;
    Eeprom loaded;  // at the last power-up
    State state;
};
