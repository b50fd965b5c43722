#include <gtest/gtest.h>

#include <optional>
#include <sstream>

#include "commands.h"
#include "lamps.h"

namespace {

constexpr SetupPacket readPins = {0xc0, 0x0c, 0, 1, 1};
constexpr SetupPacket readEeprom10 = {0xc0, 0x90, 0, 10, 2};

SetupPacket setBitMode(unsigned mode, unsigned mask) {
    return {0x40, 0x0b, static_cast<std::uint16_t>(mode << 8 | mask), 1, 0};
}

SetupPacket getDescriptor(std::uint16_t typeAndIndex, std::uint16_t length) {
    return {0x80, 0x06, typeAndIndex, 0, length};
}

TEST(Unit, describesItselfAsAnFt232r) {
    UnitOptions options;
    options.product = "my TQ-5";
    options.bcdDevice = 0x0400;
    Unit unit(options, 3);
    EXPECT_EQ((Bytes{18, 1, 0, 2, 0, 0, 0, 8, 0x03, 0x04, 0x01, 0x60, 0x00, 0x04, 1, 2, 3, 1}),
              unit.control(getDescriptor(0x0100, 64)).data);
    EXPECT_EQ((Bytes{16, 3, 'm', 0, 'y', 0, ' ', 0, 'T', 0, 'Q', 0, '-', 0, '5', 0}),
              unit.control(getDescriptor(0x0302, 255)).data);
    EXPECT_EQ((Bytes{4, 3, 9, 4}), unit.control(getDescriptor(0x0300, 255)).data);
    EXPECT_EQ((Bytes{9, 2, 32, 0, 1, 1, 0, 0xa0, 45}), unit.control(getDescriptor(0x0200, 9)).data);
    EXPECT_EQ(32u, unit.control(getDescriptor(0x0200, 255)).data.size());
    EXPECT_TRUE(unit.control(getDescriptor(0x0304, 64)).stalled);
    EXPECT_TRUE(unit.control(getDescriptor(0x0600, 64)).stalled);
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
        EXPECT_EQ(c.lamps, lamps(unit, false));
    }
    EXPECT_EQ("CBUS0 \033[2m-\033[0m CBUS1 \033[2m-\033[0m pins=floating",
              lamps(Unit(UnitOptions(), 0), true));
}

TEST(Unit, answersVendorRequests) {
    UnitOptions options;
    options.eepromWord10 = 0x123a;
    Unit unit(options, 0);
    EXPECT_EQ((Bytes{0x3a, 0x12}), unit.control(readEeprom10).data);
    EXPECT_EQ((Bytes{0x03, 0x04}), unit.control({0xc0, 0x90, 0, 1, 2}).data);
    unit.control({0x40, 0x09, 77, 1, 0});
    EXPECT_EQ(Bytes{77}, unit.control({0xc0, 0x0a, 0, 1, 1}).data);
    EXPECT_FALSE(unit.control({0x40, 0x03, 0x4138, 0, 0}).stalled);
}

TEST(Unit, stallsAndForcesOnlyWhatItIsTold) {
    Unit unit(UnitOptions(), 0);
    unit.stall(0x0b);
    const ControlReply reply = unit.control(setBitMode(0x20, 0x30));
    EXPECT_TRUE(reply.stalled);
    EXPECT_EQ("stalled request 0b", reply.event);
    EXPECT_EQ(Level::floating, unit.cbus(0)) << "a stalled request has no effect";
    EXPECT_FALSE(unit.control(readEeprom10).stalled);
    unit.stall(std::nullopt);
    unit.forcePins(0x02);
    EXPECT_FALSE(unit.control(setBitMode(0x20, 0x31)).stalled);
    EXPECT_EQ(Bytes{0x02}, unit.control(readPins).data);
    EXPECT_EQ(Level::high, unit.cbus(0)) << "only the reading is forced";
    unit.forcePins(std::nullopt);
    EXPECT_EQ(Bytes{0x0d}, unit.control(readPins).data);
}

TEST(Commands, areParsed) {
    Command command;
    std::string error;
    ASSERT_TRUE(
        parseCommand("plug 12\tproduct=\"my  TQ-5\" eeprom=3A \"bcd=400\"\r", command, error));
    EXPECT_EQ(Command::Kind::plug, command.kind);
    EXPECT_EQ(12u, command.unit);
    EXPECT_EQ("my  TQ-5", command.options.product);
    EXPECT_EQ(0x0400, command.options.bcdDevice);
    EXPECT_EQ(0x003a, command.options.eepromWord10);
    ASSERT_TRUE(parseCommand("plug 0 product=\"\"", command, error));
    EXPECT_EQ("", command.options.product);
    EXPECT_EQ(0x0600, command.options.bcdDevice);
    ASSERT_TRUE(parseCommand("stall 1 0c", command, error));
    EXPECT_EQ(0x0c, command.byte);
    ASSERT_TRUE(parseCommand("pins 1 auto", command, error));
    EXPECT_EQ(Command::Kind::pins, command.kind);
    EXPECT_FALSE(command.byte);
    ASSERT_TRUE(parseCommand("  ", command, error));
    EXPECT_EQ(Command::Kind::none, command.kind);
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
