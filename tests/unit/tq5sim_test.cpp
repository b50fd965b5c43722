#include <gtest/gtest.h>

#include <sstream>

#include "commands.h"
#include "lamps.h"

namespace {

constexpr SetupPacket readPins = {0xc0, 0x0c, 0, 1, 1};

SetupPacket setBitMode(unsigned mode, unsigned mask) {
    return {0x40, 0x0b, static_cast<std::uint16_t>(mode << 8 | mask), 1, 0};
}

TEST(Unit, drivesPinsAsModeMaskAndEepromSay) {
    struct {
        std::uint16_t eeprom;
        unsigned mode;
        unsigned mask;
        std::uint8_t read;
        const char* lamps;
    } const cases[] = {
        {0x00aa, 0x20, 0x30, 0x0c, "CBUS0 ○ CBUS1 ○ pins=00"},
        {0x00aa, 0x20, 0x31, 0x0d, "CBUS0 ● CBUS1 ○ pins=01"},
        {0x00aa, 0x20, 0x32, 0x0e, "CBUS0 ○ CBUS1 ● pins=02"},
        {0x00aa, 0x20, 0x33, 0x0f, "CBUS0 ● CBUS1 ● pins=03"},
        {0x00aa, 0x20, 0x10, 0x0e, "CBUS0 ○ CBUS1 - pins=floating"},
        {0x003a, 0x20, 0x30, 0x0e, "CBUS0 ○ CBUS1 - pins=floating"},
        {0xaaaa, 0x20, 0xf0, 0x00, "CBUS0 ○ CBUS1 ○ pins=00"},
        {0x00aa, 0x01, 0x30, 0x0f, "CBUS0 - CBUS1 - pins=floating"},
        {0x00aa, 0x00, 0x00, 0x0f, "CBUS0 - CBUS1 - pins=floating"},
    };
    for (const auto& c : cases) {
        UnitOptions options;
        options.eepromWord10 = c.eeprom;
        Unit unit(options, 0);
        unit.control(setBitMode(0x20, 0x33));
        unit.control(setBitMode(c.mode, c.mask));
        EXPECT_EQ(Bytes{c.read}, unit.control(readPins).data) << c.mask;
        EXPECT_EQ(c.lamps, lamps(unit));
    }
}

TEST(Commands, areRefusedWhole) {
    std::istringstream lines(
        "frob;plug;plug x;plug -1;plug 100;plug 0x1;plug 0 bcd=;plug 0 bcd=g;plug 0 bcd=12345;"
        "plug 0 colour=red;plug 0 product;plug 0 product=\"a;plug 0 product=\x01;"
        "plug 0 product=\xc3\xa4;plug 0 a=1 b=2 c=3 d=4;unplug;unplug 0 0;stall 0;stall 0 auto;"
        "stall 0 100;pins 0 none;pins 0 ;quit now;Quit;plug 0 product=" +
        std::string(maxProductLength + 1, 'x') + ";unplug 1" + '\0');
    for (std::string line; std::getline(lines, line, ';');) {
        Command command;
        command.unit = 77;
        std::string error;
        EXPECT_FALSE(parseCommand(line, command, error)) << line;
        EXPECT_FALSE(error.empty()) << line;
        EXPECT_EQ(77u, command.unit) << line;
    }
}

}  // namespace
