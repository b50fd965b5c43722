#include "eeprom.h"

namespace {

constexpr std::size_t checksumWord = Eeprom::words - 1;
constexpr std::size_t stringsAt = 0x18;
constexpr std::uint8_t stringDescriptor = 3;

}  // namespace

Eeprom::Eeprom(const std::string& product, const std::string& serial, std::uint16_t cbusFunctions) {
    setWord(0, 0x4000);
    setWord(vendorIdWord, 0x0403);
    setWord(productIdWord, 0x6001);
    content[attributesByte] = 0xa0;  // bus powered, remote wakeup
    content[maxPowerByte] = 45;      // 90 mA
    content[optionsByte] = hasSerial;
    setWord(cbusFunctionsWord, cbusFunctions);
    setWord(cbusFunctionsWord + 1, 0x0005);  // CBUS4 is SLEEP#
    std::size_t at = stringsAt;
    std::size_t pointer = manufacturerPointer;
    for (const std::string& text : {std::string("FTDI"), product, serial}) {
        const auto length = static_cast<std::uint8_t>(2 + 2 * text.size());
        content[pointer++] = static_cast<std::uint8_t>(0x80 | at);
        content[pointer++] = length;
        content[at++] = length;
        content[at++] = stringDescriptor;
        for (char c : text) {
            content[at++] = static_cast<std::uint8_t>(c);
            content[at++] = 0;
        }
    }
    setWord(checksumWord, checksum());
}

std::uint16_t Eeprom::word(std::size_t address) const {
    return static_cast<std::uint16_t>(byte(2 * address) | byte(2 * address + 1) << 8);
}

void Eeprom::setWord(std::size_t address, std::uint16_t value) {
    content[2 * address % size] = static_cast<std::uint8_t>(value & 0xff);
    content[(2 * address + 1) % size] = static_cast<std::uint8_t>(value >> 8);
}

bool Eeprom::isSound() const { return word(checksumWord) == checksum(); }

Bytes Eeprom::string(std::size_t pointer) const {
    Bytes descriptor;
    for (std::size_t i = 0; i < byte(pointer + 1); ++i) {
        descriptor.push_back(byte(byte(pointer) + i));
    }
    return descriptor;
}

std::uint16_t Eeprom::checksum() const {
    unsigned sum = 0xaaaa;
    for (std::size_t i = 0; i < checksumWord; ++i) {
        sum ^= word(i);
        sum = (sum << 1 | sum >> 15) & 0xffff;
    }
    return static_cast<std::uint16_t>(sum);
}
