#include "tq5ftdi.h"

#include "logger.h"
#include "world.h"

namespace {

using DriverTest = WorldTest;

const std::string openedLine = "<6>opened FTDI device 'TQ-5 unit' (001/004)";
const Lines closedLines = {"<6>close FTDI device '' ()", "ftdi_deinit"};

Lines operator+(Lines a, const Lines& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

TEST_F(DriverTest, OpensDrivesAndReleasesTheUnit) {
    world.attach("004");
    {
        TQ5Ftdi unit;
        EXPECT_TRUE(unit.openBySearch());
        EXPECT_EQ(unit.nodePath, "001/004");
        for (std::uint8_t value = 0; value < 4; ++value) EXPECT_TRUE(unit.setPins(value));
        world.pinsRead = 0x0d;
        EXPECT_TRUE(unit.setPins(1));
        unit.close();
        EXPECT_EQ(unit.nodePath, "");
        unit.close();
    }
    EXPECT_EQ(world.take(),
              (Lines{"find_all 0403:6001", "open 004", "eeprom 10", openedLine, "bitmode 30 20",
                     "bitmode 31 20", "bitmode 32 20", "bitmode 33 20", "bitmode 31 20",
                     "<6>close FTDI device 'TQ-5 unit' (001/004)", "disable_bitbang", "usb_close",
                     "<6>close FTDI device '' ()"} +
               closedLines));
}

TEST_F(DriverTest, TurnsUnitsAwayWithTheReason) {
    struct Case {
        const char* name;
        std::function<void(struct usb_device&, World::Attached&)> prepare;
        Lines expected;  // between the search and the end
    };
    const Lines resetAndClosed = {"usb_reset", "usb_close"};
    const Case cases[] = {
        {"other chip",
         [](auto& dev, auto&) { dev.descriptor.bcdDevice = 0x0400; },
         {"<4>FTDI device is not compatible"}},
        {"other product",
         [](auto&, auto& unit) { unit.product = "TQ5"; },
         {"<4>unknown FTDI device 'TQ5'"}},
        {"no strings",
         [](auto&, auto&) { world.results["get_strings"] = {-1}; },
         {"<3>ftdi_usb_get_strings failed: reason"}},
        {"no opening",
         [](auto&, auto&) { world.results["open"] = {-1}; },
         {"open 004", "<3>unable to open ftdi device: reason"}},
        {"no EEPROM", [](auto&, auto&) { world.results["eeprom"] = {-1}; },
         Lines{"open 004", "eeprom 10", "<3>ftdi_read_eeprom failed: reason"} + resetAndClosed},
        {"CBUS1 in another function", [](auto&, auto&) { world.eepromWord = 0xaa3a; },
         Lines{
             "open 004", "eeprom 10",
             "<3>FTDI device 'TQ-5 unit': cbus functions (cbus0=10, cbus1=3) are not configured"} +
             resetAndClosed},
        {"list fails",
         [](auto&, auto&) { world.results["find_all"] = {-3}; },
         {"<3>ftdi_usb_find_all failed: reason"}},
        {"none", [](auto&, auto&) { world.attached.clear(); }, {}},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        for (const bool search : {true, false}) {
            world.~World();
            new (&world) World;
            struct usb_device& dev = world.attach("004");
            test.prepare(dev, world.attached.back());
            TQ5Ftdi unit;
            EXPECT_FALSE(search ? unit.openBySearch() : unit.openByNodePath("001/004"));
            EXPECT_EQ(unit.nodePath, "");
            EXPECT_EQ(world.take(), Lines{"find_all 0403:6001"} + test.expected);
            EXPECT_TRUE(world.listFreed);
        }
    }
}

TEST_F(DriverTest, ChoosesAmongSeveralUnits) {
    SysLog::instance()->setDebugLevel(2);
    world.attach("002", "other").descriptor.bcdDevice = 0x0400;
    world.attach("003", "my tq-5 rev B");
    world.attach("004");
    world.results["open"] = {-1, 0};
    TQ5Ftdi unit;
    world.trace.clear();
    EXPECT_TRUE(unit.openBySearch());
    EXPECT_EQ(
        world.trace,
        (Lines{"<7>search FTDI devices", "find_all 0403:6001", "<7>number of FTDI devices found: 3",
               "<7>checking device: 0", "<7>FTDI device: unexpected chip type (bcdDevice = '0400')",
               "<4>FTDI device is not compatible", "<7>checking device: 1", "open 003",
               "<3>unable to open ftdi device: reason", "<7>checking device: 2", "open 004",
               "eeprom 10", "<7>device node path: '001/004'", openedLine}));
    unit.close();

    world.trace.clear();
    EXPECT_TRUE(unit.openByNodePath("001/003"));
    EXPECT_EQ(world.trace,
              (Lines{"<7>open FTDI device by node path: '001/003'", "find_all 0403:6001",
                     "<7>number of FTDI devices found: 3", "<7>checking device: 0",
                     "<7>device node path: '001/002'", "<7>checking device: 1",
                     "<7>device node path: '001/003'", "open 003", "eeprom 10",
                     "<6>opened FTDI device 'my tq-5 rev B' (001/003)"}));
    unit.close();
    world.take();
    EXPECT_FALSE(unit.openByNodePath(""));
    EXPECT_EQ(world.take(), Lines{});
}

TEST_F(DriverTest, ReportsFailedWrites) {
    SysLog::instance()->setDebugLevel(2);
    world.attach("004");
    TQ5Ftdi unit;
    ASSERT_TRUE(unit.openBySearch());
    world.trace.clear();
    world.results["bitmode"] = {5, 0, 0};
    world.results["read_pins"] = {-2, 0};
    world.pinsRead = 0xf2;
    world.translations
        ["TQ5Ftdi|\x04"
         "ftdi_read_pins failed: %s"] = "Lesefehler: %s";
    for (int i = 0; i < 3; ++i) EXPECT_FALSE(unit.setPins(1));
    EXPECT_EQ(world.trace,
              (Lines{"<7>using bitmask 0x31\n", "bitmode 31 20",
                     "<3>ftdi_set_bitmode failed(5) for 0x31: reason", "<7>using bitmask 0x31\n",
                     "bitmode 31 20", "<3>Lesefehler: reason", "<7>using bitmask 0x31\n",
                     "bitmode 31 20", "<7>current ftdi pins: 0x02\n",
                     "<3>set FTDI device pins failed: expected=01, current=02"}));
}

TEST_F(DriverTest, SurvivesAFailedInitialisation) {
    world.results["ftdi_init"] = {-1};
    { TQ5Ftdi unit; }
    EXPECT_EQ(world.take(), (Lines{"<3>ftdi_init failed", "<6>close FTDI device '' ()"}));
}

TEST_F(DriverTest, FindsTheNodePathBehindAHub) {
    struct usb_device& root = world.attach("001");
    struct usb_device& hub = world.attach("002");
    struct usb_device& unit = world.attach("003");
    struct usb_device& stranger = world.attach("009");
    struct usb_device* rootChildren[] = {nullptr, &hub};
    struct usb_device* hubChildren[] = {nullptr, &unit};
    root.children = rootChildren;
    root.num_children = 2;
    hub.children = hubChildren;
    hub.num_children = 2;
    world.bus.root_dev = &root;
    EXPECT_EQ(deviceNodePath(&hub), "001/002");
    EXPECT_EQ(deviceNodePath(&unit), "001/002/003");
    EXPECT_EQ(deviceNodePath(&stranger), "");
    world.bus.root_dev = nullptr;
    EXPECT_EQ(deviceNodePath(&unit), "001/003");

    std::string path;
    EXPECT_DEATH(findDev(nullptr, &unit, path),
                 R"(\.\./\.\./pinwatchd/src/tq5ftdi\.cpp:.*bool findDev\(usb_device\*, )"
                 R"(usb_device\*, std::string&\): .*`where && "where is null"')");
}

}  // namespace
