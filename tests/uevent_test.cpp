#include "uevent.h"

#include "kernelevents.h"
#include "logger.h"
#include "ueventmonitor.h"

namespace {

TEST(UeventTest, WalksTheEntriesOfADatagram) {
    const std::string full =
        "add@/d|ACTION=add|DEVPATH=/d|DEVTYPE=usb_device|BUSNUM=001|DEVNUM=004|";
    struct Case {
        std::string text;  // "|" stands for NUL
        const char* seen;
    } const cases[] = {
        {full, "add /sys/d 001 004"},
        {full.substr(0, full.size() - 1), "add /sys/d 001 004"},
        {"add@/d=BUSNUM|=ACTION==change=x=|", "change"},
        {"|==|=|||BUSNUM=1||DEVNUM|DEVNUM=2=3", "- 1 2"},
        {"DEVNUM=1|DEVNUM=|", "-"},
        {"BUSNUM=001|busnum=002|BUSNUM =003", "- 001"},
        {"ACTION=|DEVPATH=", " /sys"},
        {"ACTION=bind|DEVTYPE=usb_interface|BUSNUM=001", "bind interface"},
        {"DEVTYPE|ACTION=add", "- interface"},
    };
    for (const Case& test : cases) {
        std::string text = test.text;
        for (char& c : text)
            c = c == '|' ? '\0' : c;
        // A copy of exactly the received length, so that a sanitizer sees a step outside.
        const std::vector<char> datagram(text.begin(), text.end());
        const Uevent event = parseUevent(datagram.data(), datagram.size());
        std::string seen = event.action.value_or("-");
        for (const std::string& part :
             {event.sysfsDirectory, event.busNumber, event.deviceNumber}) {
            if (!part.empty())
                seen += " " + part;
        }
        EXPECT_EQ(seen + (event.usbDevice ? "" : " interface"), test.seen) << test.text;
    }
}

using MonitorTest = KernelEventsTest;

TEST_F(MonitorTest, TellsArrivalsAndRemovals) {
    SysLog::instance()->setDebugLevel(3);
    UeventMonitor monitor;
    const std::string waits = "<7>wait for vid=0403, pid=6001, node=''";
    const std::string watches = "<7>wait for vid=0000, pid=0000, node='001/004'";
    const auto arrival = [&] { return monitor.waitForDevice(0x0403, 0x6001); };
    const auto removal = [&] { return monitor.checkRemoved("001/004"); };
    struct Case {
        const char* name;
        std::function<void()> happens;
        std::function<bool()> call;
        bool result, added;
        Lines log;
    } const cases[] = {
        {"arrival",
         [&] { sendUsb("add", "004"); },
         arrival,
         true,
         true,
         {waits, "<7>got USB device: node=001/004", "<7>USB device VID/PID: 0403:6001",
          "<7>udev: FTDI USB device (0403:6001) inserted"}},
        {"arrival while connected",
         [&] { sendUsb("add", "005"); },
         removal,
         false,
         true,
         {watches, "<7>got USB device: node=001/005", "<7>USB device VID/PID: 0403:6001"}},
        {"removal",
         [&] { sendUsb("remove", "004"); },
         removal,
         true,
         false,
         {watches, "<7>got USB device: node=001/004",
          "<7>udev: FTDI USB device (001/004) removed"}},
        {"removal of another",
         [&] { sendUsb("remove", "005"); },
         removal,
         false,
         false,
         {watches, "<7>got USB device: node=001/005",
          "<7>udev: FTDI USB device (001/005) removed"}},
        {"change while waiting",
         [&] { sendUsb("change", "004"); },
         arrival,
         false,
         false,
         {waits, "<7>got USB device: node=001/004", "<7>udev: FTDI USB device (001/004) removed"}},
        {"interface",
         [&] { send("|ACTION=add|DEVTYPE=usb_interface|BUSNUM=001|DEVNUM=004"); },
         removal,
         false,
         true,
         {watches, "<7>device is not 'usb_device'"}},
        {"no node",
         [&] { send("x|ACTION=remove|DEVNUM=004"); },
         removal,
         false,
         false,
         {watches, "<7>can't get device node path"}},
        {"full buffer",
         [&] { send("x|ACTION=remove|BUSNUM=001|DEVNUM=" + std::string(2100, '4')); },
         [&] { return monitor.checkRemoved("001/" + std::string(2048 - 34, '4')); },
         true,
         false,
         {}},
        {"short IDs",
         [&] {
             putSysfs("403", "0x6001\nmore");
             sendUsb("add", "007");
         },
         arrival,
         true,
         true,
         {waits, "<7>got USB device: node=001/007", "<7>USB device VID/PID: 403:0x6001",
          "<7>udev: FTDI USB device (0403:6001) inserted"}},
        {"other device",
         [&] {
             putSysfs("046d\n", "c077\n");
             sendUsb("add", "008");
         },
         arrival,
         false,
         true,
         {waits, "<7>got USB device: node=001/008", "<7>USB device VID/PID: 046d:c077"}},
        {"odd ID",
         [&] {
             putSysfs("0403\n", "");
             sendUsb("add", "008");
         },
         arrival,
         false,
         true,
         {waits, "<7>got USB device: node=001/008",
          "<3>read file error: /sys/.." + folder + "/idProduct: Success",
          "<7>USB device VID/PID: 0403:", "<3>can't get USB device VID/PID (0403/)"}},
        {"gone again",
         [&] { send("x|ACTION=add|DEVPATH=/gone|BUSNUM=001|DEVNUM=009"); },
         arrival,
         false,
         true,
         {waits, "<7>got USB device: node=001/009",
          "<3>read file error: /sys/gone/idVendor: No such file or directory",
          "<3>read file error: /sys/gone/idProduct: No such file or directory",
          "<7>USB device VID/PID: :", "<3>can't get USB device VID/PID (/)"}},
        {"nothing for a second", [] {}, removal, false, true, {watches}},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        test.happens();
        world.trace.clear();
        EXPECT_EQ(test.call(), test.result);
        EXPECT_EQ(monitor.added, test.added);
        if (!test.log.empty()) {
            EXPECT_EQ(world.trace, test.log);
        }
    }
    EXPECT_EQ(monitor.nodePath, "001/007");
}

TEST_F(MonitorTest, ReturnsAtOnceWithoutASocket) {
    const UeventMonitor first;
    UeventMonitor second;  // the process's netlink address is taken
    EXPECT_EQ(world.take(), Lines{"<3>bind socket: Address already in use"});
    EXPECT_FALSE(second.hasSocket());
    EXPECT_FALSE(second.waitForDevice(0x0403, 0x6001));
    EXPECT_FALSE(second.checkRemoved("001/004"));
}

TEST_F(MonitorTest, RemembersLostEventsUntilTheQueueIsEmpty) {
    UeventMonitor monitor;
    EXPECT_FALSE(monitor.eventsWereLost());
    for (int i = 0; i < 100; ++i)
        sendUsb("remove", "009");
    EXPECT_FALSE(monitor.checkRemoved("001/004"));  // the kernel reports the loss first
    int handled = 0;
    while (!monitor.eventsWereLost()) {
        ASSERT_LT(++handled, 100);
        EXPECT_FALSE(monitor.checkRemoved("001/004"));
    }
    EXPECT_GT(handled, 0);
    EXPECT_FALSE(monitor.eventsWereLost());
    sendUsb("remove", "004");
    EXPECT_TRUE(monitor.checkRemoved("001/004"));
}

}  // namespace
