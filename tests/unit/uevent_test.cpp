#include "uevent.h"

#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>

#include "logger.h"
#include "ueventmonitor.h"
#include "world.h"

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
        for (char& c : text) c = c == '|' ? '\0' : c;
        // A copy of exactly the received length, so that a sanitizer sees a step outside.
        const std::vector<char> datagram(text.begin(), text.end());
        const Uevent event = parseUevent(datagram.data(), datagram.size());
        std::string seen = event.action.value_or("-");
        for (const std::string& part :
             {event.sysfsDirectory, event.busNumber, event.deviceNumber}) {
            if (!part.empty()) seen += " " + part;
        }
        EXPECT_EQ(seen + (event.usbDevice ? "" : " interface"), test.seen) << test.text;
    }
}

using MonitorTest = KernelEventsTest;

TEST_F(MonitorTest, TellsArrivalsAndRemovals) {
    SysLog::instance()->setDebugLevel(3);
    UeventMonitor monitor;
    struct Case {
        std::string event;             // none: nothing comes
        const char *vendor, *product;  // what sysfs says of the device
        const char* watched;           // a path for checkRemoved, or null for waitForDevice
        bool result, added;
        std::string log;  // after the line that starts the wait
    } const cases[] = {
        {usbEvent("add", "004"), "0403\n", "6001\n", nullptr, true, true,
         "<7>got USB device: node=001/004|<7>USB device VID/PID: 0403:6001|"
         "<7>udev: FTDI USB device (0403:6001) inserted|"},
        {usbEvent("add", "005"), "0403\n", "6001\n", "001/004", false, true,
         "<7>got USB device: node=001/005|<7>USB device VID/PID: 0403:6001|"},
        {usbEvent("remove", "004"), "", "", "001/004", true, false,
         "<7>got USB device: node=001/004|<7>udev: FTDI USB device (001/004) removed|"},
        {usbEvent("change", "005"), "", "", "001/004", false, false,
         "<7>got USB device: node=001/005|<7>udev: FTDI USB device (001/005) removed|"},
        {usbEvent("remove", "004"), "", "", nullptr, false, false,
         "<7>got USB device: node=001/004|<7>udev: FTDI USB device (001/004) removed|"},
        {"ACTION=add|DEVTYPE=usb_interface|BUSNUM=001|DEVNUM=004|", "", "", "001/004", false, true,
         "<7>device is not 'usb_device'|"},
        {"BUSNUM=001|DEVTYPE=usb_device|ACTION=remove", "", "", "001/004", false, false,
         "<7>can't get device node path|"},
        {usbEvent("add", "007"), "403", "0x6001\nmore", nullptr, true, true,
         "<7>got USB device: node=001/007|<7>USB device VID/PID: 403:0x6001|"
         "<7>udev: FTDI USB device (0403:6001) inserted|"},
        {usbEvent("add", "008"), "046d\n", "6001\n", nullptr, false, true,
         "<7>got USB device: node=001/008|<7>USB device VID/PID: 046d:6001|"},
        {usbEvent("add", "008"), "0403\n", "6015\n", nullptr, false, true,
         "<7>got USB device: node=001/008|<7>USB device VID/PID: 0403:6015|"},
        {usbEvent("add", "008"), "0403 \n", "", nullptr, false, true,
         "<7>got USB device: node=001/008|<3>read file error: /sys/.." + folder +
             "/idProduct: Success|<7>USB device VID/PID: 0403 :|"
             "<3>can't get USB device VID/PID (0403 /)|"},
        {"DEVPATH=/gone|BUSNUM=001|DEVNUM=009", "", "", nullptr, false, true,
         "<7>got USB device: node=001/009|"
         "<3>read file error: /sys/gone/idVendor: No such file or directory|"
         "<3>read file error: /sys/gone/idProduct: No such file or directory|"
         "<7>USB device VID/PID: :|<3>can't get USB device VID/PID (/)|"},
        {"", "", "", "001/004", false, true, ""},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.event);
        putSysfs(test.vendor, test.product);
        if (!test.event.empty()) send(test.event);
        world.trace.clear();
        const std::string watched = test.watched ? test.watched : "";
        EXPECT_EQ(
            test.watched ? monitor.checkRemoved(watched) : monitor.waitForDevice(0x0403, 0x6001),
            test.result);
        EXPECT_EQ(monitor.added, test.added);
        EXPECT_EQ(world.take(), std::string(test.watched ? "<7>wait for vid=0000, pid=0000"
                                                         : "<7>wait for vid=0403, pid=6001") +
                                    ", node='" + watched + "'|" + test.log);
    }
    EXPECT_EQ(monitor.nodePath, "001/007");

    // A datagram that fills the buffer has no NUL at its end.
    send("ACTION=remove|BUSNUM=001|DEVNUM=" + std::string(2100, '4'));
    EXPECT_TRUE(monitor.checkRemoved("001/" + std::string(2048 - 32, '4')));
}

TEST_F(MonitorTest, TakesNoDescriptorBeyondSelectsSets) {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = FD_SETSIZE + 10;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    const int first = dup(0);
    while (dup(0) < FD_SETSIZE - 1) {
    }
    UeventMonitor monitor;
    EXPECT_EQ(world.take(), "<3>create socket: Too many open files|");
    EXPECT_FALSE(monitor.checkRemoved("001/004"));
    EXPECT_EQ(dup(0), FD_SETSIZE);  // nothing was left open
    closefrom(first);
}

TEST_F(MonitorTest, TellsOfAnOverrunOnceTheQueueIsEmpty) {
    UeventMonitor monitor;
    EXPECT_FALSE(monitor.takeOverrun(false));
    for (int i = 0; i < 100; ++i) send("ACTION=remove|BUSNUM=001|DEVNUM=009");
    EXPECT_FALSE(monitor.checkRemoved("001/004"));  // the kernel reports the loss first
    int handled = 0;
    while (!monitor.takeOverrun(false)) {
        ASSERT_LT(++handled, 100);
        EXPECT_FALSE(monitor.checkRemoved("001/004"));
    }
    EXPECT_GT(handled, 0);
    EXPECT_FALSE(monitor.takeOverrun(false));
    EXPECT_TRUE(monitor.takeOverrun(true));
    send(usbEvent("remove", "004"));
    EXPECT_FALSE(monitor.takeOverrun(true));  // not before that is handled
    EXPECT_TRUE(monitor.checkRemoved("001/004"));
}

TEST_F(MonitorTest, KeepsWhatComesWhileAUnitIsOpened) {
    SysLog::instance()->setDebugLevel(2);
    UeventMonitor monitor;
    send(usbEvent("add", "004"));
    ASSERT_TRUE(monitor.waitForDevice(0x0403, 0x6001));
    world.trace.clear();
    const std::string interface = "ACTION=bind|DEVTYPE=usb_interface|";
    for (const std::string& event : {usbEvent("change", "004"), interface}) {
        send(event);
        monitor.settle();  // nothing says that the unit is configured
    }
    for (const std::string& event : {usbEvent("add", "005"), usbEvent("bind", "004")}) {
        send(event);
        monitor.keepArrivalBacklog();
    }
    write("bConfigurationValue", "1\n", 1);
    send(usbEvent("change", "005"));
    monitor.settle();  // at once
    send(usbEvent("bind", "004"));
    EXPECT_EQ(world.take(), "");

    std::string seen;
    for (int i = 0; i < 6; ++i) {
        const bool removed = monitor.checkRemoved("001/004");
        seen += removed ? monitor.tellsOfArrival() ? "arrival " : "removal " : "- ";
    }
    EXPECT_EQ(seen, "arrival - - arrival - removal ");
    EXPECT_EQ(world.take(),
              "<7>udev: FTDI USB device (001/004) removed|<7>device is not 'usb_device'|"
              "<7>USB device VID/PID: 0403:6001|<7>udev: FTDI USB device (001/004) removed|"
              "<7>udev: FTDI USB device (001/005) removed|"
              "<7>udev: FTDI USB device (001/004) removed|");
    EXPECT_TRUE(monitor.takeStayingUnit());
    EXPECT_FALSE(monitor.takeStayingUnit());

    // Its successor at the same port has the same directory in sysfs.
    send(usbEvent("unbind", "004"));
    monitor.keepArrivalBacklog();
    putNode(false);
    std::filesystem::create_directories("/dev/bus/usb/001");
    EXPECT_TRUE(monitor.checkRemoved("001/004"));
    EXPECT_FALSE(monitor.tellsOfArrival());
    EXPECT_FALSE(monitor.takeStayingUnit());
}

}  // namespace
