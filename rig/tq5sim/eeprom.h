#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "usbip.h"

// The 128 bytes of EEPROM inside an FT232R, laid out as libftdi reads and builds them. Addresses
// and offsets beyond the end begin anew.
class Eeprom {
public:
    static constexpr std::size_t size = 128;
    static constexpr std::size_t words = size / 2;

    static constexpr std::size_t vendorIdWord = 1;
    static constexpr std::size_t productIdWord = 2;
    static constexpr std::size_t cbusFunctionsWord = 10;  // four bits each from CBUS0 up
    static constexpr std::size_t attributesByte = 0x08;   // bmAttributes of the configuration
    static constexpr std::size_t maxPowerByte = 0x09;     // its bMaxPower, in 2 mA
    static constexpr std::size_t optionsByte = 0x0a;
    static constexpr std::uint8_t hasSerial = 0x08;      // of the options
    static constexpr std::size_t maxStringsLength = 44;  // characters of product and serial

    // Sound contents, for the rest as the factory leaves them (FT232R datasheet, section 8).
    // Product and serial are ASCII.
    Eeprom(const std::string& product, const std::string& serial, std::uint16_t cbusFunctions);

    std::uint8_t byte(std::size_t offset) const { return content[offset % size]; }
    std::uint16_t word(std::size_t address) const;

    // Leaves the checksum alone, as a chip does.
    void setWord(std::size_t address, std::uint16_t value);

    // Whether the last word is the checksum of the others.
    bool isSound() const;

    // String descriptors (USB 2.0, 9.6.7), as they are stored.
    Bytes manufacturer() const { return string(manufacturerPointer); }
    Bytes product() const { return string(manufacturerPointer + 2); }
    Bytes serial() const { return string(manufacturerPointer + 4); }

private:
    static constexpr std::size_t manufacturerPointer = 0x0e;  // then those of product and serial

    Bytes string(std::size_t pointer) const;
    std::uint16_t checksum() const;

    std::array<std::uint8_t, size> content{};
};
