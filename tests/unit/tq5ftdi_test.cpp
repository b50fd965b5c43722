#include "tq5ftdi.h"

#include "logger.h"
#include "world.h"

namespace {

using DriverTest = WorldTest;

TEST_F(DriverTest, OpensDrivesAndReleasesTheUnit) {
    SysLog::instance()->setDebugLevel(2);
    world.attach("004");
    world.results["bitmode"] = {0, 5};
    world.results["read_pins"] = {0, -2};
    world.take();
    {
        TQ5Ftdi unit;
        EXPECT_TRUE(unit.openBySearch());
        EXPECT_EQ(unit.nodePath, "001/004");
        EXPECT_TRUE(unit.setPins(2));
        EXPECT_FALSE(unit.setPins(1));
        EXPECT_FALSE(unit.setPins(1));
        world.pinsRead = 0xf2;
        EXPECT_FALSE(unit.setPins(1));
        world.pinsRead = 0xfd;
        EXPECT_TRUE(unit.setPins(1));
        unit.close();
        EXPECT_EQ(unit.nodePath, "");
    }
    EXPECT_EQ(world.take(),
              "<7>search FTDI devices|find_all 0403:6001|<7>number of FTDI devices found: 1|"
              "<7>checking device: 0|open 004|eeprom 10|<7>device node path: '001/004'|"
              "<6>opened FTDI device 'TQ-5 unit' (001/004)|"
              "<7>using bitmask 0x32\n|bitmode 32 20|<7>current ftdi pins: 0x02\n|"
              "<7>using bitmask 0x31\n|bitmode 31 20|"
              "<3>ftdi_set_bitmode failed(5) for 0x31: reason|"
              "<7>using bitmask 0x31\n|bitmode 31 20|<3>ftdi_read_pins failed: reason|"
              "<7>using bitmask 0x31\n|bitmode 31 20|<7>current ftdi pins: 0x02\n|"
              "<3>set FTDI device pins failed: expected=01, current=02|"
              "<7>using bitmask 0x31\n|bitmode 31 20|<7>current ftdi pins: 0x0d\n|"
              "<6>close FTDI device 'TQ-5 unit' (001/004)|disable_bitbang|usb_close|"
              "<6>close FTDI device '' ()|ftdi_deinit|");
}

TEST_F(DriverTest, TurnsUnitsAwayWithTheReason) {
    struct Case {
        const char* failing;  // a library call, or none
        unsigned short bcdDevice, eepromWord;
        const char *product, *expected;  // the trace between the search and the end
    } const cases[] = {
        {"", 0x0400, 0xaa, "TQ-5", "<4>FTDI device is not compatible|"},
        {"", 0x0600, 0xaa, "TQ5", "<4>unknown FTDI device 'TQ5'|"},
        {"", 0x0600, 0xaa3a, "TQ-5",
         "open 004|eeprom 10|<3>FTDI device 'TQ-5': cbus functions (cbus0=10, cbus1=3) are not "
         "configured|usb_reset|usb_close|"},
        {"get_strings", 0x0600, 0xaa, "TQ-5", "<3>ftdi_usb_get_strings failed: reason|"},
        {"open", 0x0600, 0xaa, "TQ-5", "open 004|<3>unable to open ftdi device: reason|"},
        {"eeprom", 0x0600, 0xaa, "TQ-5",
         "open 004|eeprom 10|<3>ftdi_read_eeprom failed: reason|usb_reset|usb_close|"},
        {"find_all", 0x0600, 0xaa, "TQ-5", "<3>ftdi_usb_find_all failed: reason|"},
    };
    TQ5Ftdi unit;
    EXPECT_FALSE(unit.openBySearch());  // none attached
    EXPECT_EQ(world.take(), "find_all 0403:6001|");
    for (const Case& test : cases) {
        world.attached.clear();
        ListedDevice& dev = world.attach("004", test.product);
        dev.descriptor.bcdDevice = test.bcdDevice;
        takeBus(dev);  // nothing but an opened unit's path needs it
        world.eepromWord = test.eepromWord;
        world.results[test.failing] = {-1};
        EXPECT_FALSE(unit.openBySearch());
        EXPECT_EQ(unit.nodePath, "");
        EXPECT_EQ(world.take(), std::string("find_all 0403:6001|") + test.expected);
        EXPECT_TRUE(world.listFreed);
    }
}

TEST_F(DriverTest, ChoosesAmongSeveralUnits) {
    world.attach("002", "other");
    world.attach("003", "my tq-5 rev B");
    world.attach("004");
    takeBus(world.attach("005"));  // never looked at
    world.results["open"] = {-1, 0};
    TQ5Ftdi unit;
    EXPECT_TRUE(unit.openBySearch());
    EXPECT_EQ(unit.nodePath, "001/004");
    unit.close();
    EXPECT_TRUE(unit.openByNodePath("001/003"));
    EXPECT_EQ(unit.nodePath, "001/003");
    unit.close();
    EXPECT_FALSE(unit.openByNodePath(""));
    EXPECT_EQ(world.take(),
              "find_all 0403:6001|<4>unknown FTDI device 'other'|open 003|"
              "<3>unable to open ftdi device: reason|open 004|eeprom 10|"
              "<6>opened FTDI device 'TQ-5 unit' (001/004)|"
              "<6>close FTDI device 'TQ-5 unit' (001/004)|usb_close|find_all 0403:6001|open 003|"
              "eeprom 10|<6>opened FTDI device 'my tq-5 rev B' (001/003)|"
              "<6>close FTDI device 'my tq-5 rev B' (001/003)|usb_close|");
}

TEST_F(DriverTest, SurvivesAFailedInitialisation) {
    world.results["ftdi_init"] = {-1};
    { const TQ5Ftdi unit; }
    EXPECT_EQ(world.take(), "<3>ftdi_init failed|<6>close FTDI device '' ()|");
}

}  // namespace
