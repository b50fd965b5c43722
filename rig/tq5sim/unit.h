#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "usbip.h"

// What a plug command can choose of a unit.
struct UnitOptions {
    std::string product = "TQ-5 alarm unit";  // printable ASCII, at most maxProductLength
    std::uint16_t bcdDevice = 0x0600;         // 0600 is the FT232R
    std::uint16_t eepromWord10 = 0x00aa;      // CBUS functions, four bits each from CBUS0 up
};

// A string descriptor holds its length in one byte and two bytes per character.
constexpr std::size_t maxProductLength = 126;

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

    // Answers a request: the standard ones, and the vendor requests of libftdi.
    ControlReply control(const SetupPacket& setup);

    // The level that the unit drives on CBUS0 to CBUS3; floating when it does not drive the pin.
    Level cbus(unsigned pin) const;

    // Stalls this vendor request from now on; nothing stalls without a value.
    void stall(std::optional<std::uint8_t> request) { stalledRequest = request; }

    // Makes a read of the pins return this byte; without a value, the levels again.
    void forcePins(std::optional<std::uint8_t> pins) { forcedPins = pins; }

private:
    ControlReply standardRequest(const SetupPacket& setup);
    ControlReply vendorRequest(const SetupPacket& setup);
    ControlReply descriptor(std::uint16_t typeAndIndex) const;
    std::uint16_t eepromWord(unsigned address) const;
    std::uint8_t levels() const;

    UnitOptions options;
    std::string serial;
    std::uint8_t configuration = 0;
    std::uint8_t latencyTimerMs = 16;
    std::uint8_t bitMode = 0;
    std::uint8_t bitMask = 0;
    std::optional<std::uint8_t> stalledRequest;
    std::optional<std::uint8_t> forcedPins;
};
