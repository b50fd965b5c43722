#include "eeprom.h"

namespace {

constexpr unsigned stringsAt = 0x18;
constexpr std::uint8_t stringDescriptor = 3;

}  // namespace

Eeprom::Eeprom(const std::string& product, const std::string& serial, std::uint16_t cbusFunctions) {
    std::array<std::uint8_t, 2 * words> bytes = {
        0x00,     0x40, 0x03, 0x04, 0x01, 0x60,  // 0403:6001
        0x00,     0x00, 0xa0, 0x2d,              // bus powered, remote wakeup, 90 mA
        hasSerial};
    unsigned at = stringsAt;
    unsigned pointer = 0x0e;
    for (const std::string& text : {std::string(manufacturerName), product, serial}) {
        const auto length = static_cast<std::uint8_t>(2 + 2 * text.size());
        bytes[pointer++] = static_cast<std::uint8_t>(0x80 | at);
        bytes[pointer++] = length;
        bytes[at] = length;
        bytes[at + 1] = stringDescriptor;
        for (std::size_t i = 0; i < text.size(); ++i) {
            bytes[at + 2 + 2 * i] = static_cast<std::uint8_t>(text[i]);
        }
        at += length;
    }
    for (unsigned i = 0; i < words; ++i) {
        content[i] = static_cast<std::uint16_t>(bytes[2 * i] | bytes[2 * i + 1] << 8);
    }
    content[cbusFunctionsWord] = cbusFunctions;
    content[cbusFunctionsWord + 1] = 0x0005;  // CBUS4 is SLEEP#
    content[words - 1] = checksum();
}

std::uint8_t Eeprom::byte(unsigned offset) const {
    return static_cast<std::uint8_t>(word(offset / 2) >> (offset % 2 * 8));
}

bool Eeprom::isSound() const { return content[words - 1] == checksum(); }

Bytes Eeprom::string(unsigned pointer) const {
    Bytes descriptor;
    for (unsigned i = 0; i < byte(pointer + 1); ++i) {
        descriptor.push_back(byte(byte(pointer) + i));
    }
    return descriptor;
}

std::uint16_t Eeprom::checksum() const {
    unsigned sum = 0xaaaa;
    for (unsigned i = 0; i < words - 1; ++i) {
        sum ^= content[i];
        sum = (sum << 1 | sum >> 15) & 0xffff;
    }
    return static_cast<std::uint16_t>(sum);
}
