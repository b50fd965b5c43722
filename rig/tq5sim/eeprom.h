#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "usbip.h"

// The 128 bytes of EEPROM inside an FT232R, laid out as libftdi and FTDI's own tools write them.
class Eeprom {
public:
    static constexpr unsigned words = 64;
    static constexpr std::size_t maxStringsLength = 48;  // characters of all three together

    // Sound contents, else as the factory leaves them (FT232R datasheet, table 8.1). The strings
    // are ASCII.
    Eeprom(const std::string& product, const std::string& serial, std::uint16_t cbusFunctions);

    std::uint16_t word(unsigned address) const { return content[address % words]; }
    std::uint8_t byte(unsigned offset) const;

    // Leaves the checksum alone, as a chip does.
    void setWord(unsigned address, std::uint16_t value) { content[address % words] = value; }

    // Whether the last word is the checksum of the others.
    bool isSound() const;

    // String descriptors (USB 2.0, 9.6.7), as they are stored.
    Bytes manufacturer() const { return string(0x0e); }
    Bytes product() const { return string(0x10); }
    Bytes serial() const { return string(0x12); }

private:
    Bytes string(unsigned pointer) const;
    std::uint16_t checksum() const;

    std::array<std::uint16_t, words> content{};
};

constexpr unsigned vendorIdWord = 1;
constexpr unsigned productIdWord = 2;
constexpr unsigned cbusFunctionsWord = 10;  // four bits each from CBUS0 up
constexpr unsigned attributesByte = 0x08;   // bmAttributes of the configuration descriptor
constexpr unsigned maxPowerByte = 0x09;     // its bMaxPower, in 2 mA
constexpr unsigned optionsByte = 0x0a;
constexpr std::uint8_t hasSerial = 0x08;  // of the options

constexpr char manufacturerName[] = "FTDI";
