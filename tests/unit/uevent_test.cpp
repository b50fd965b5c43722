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
        std::string event;
        const char *vendor, *product;  // what sysfs says of the device
        const char* watched;           // a path for checkRemoved, or empty for waitForDevice
        bool result, added;
        std::string log;
    } const cases[] = {
        {usbEvent("add", "004"), "0403\n", "6001\n", "", true, true,
         "<7>got USB device: node=001/004|<7>USB device VID/PID: 0403:6001|"
         "<7>udev: FTDI USB device (0403:6001) inserted|"},
        {usbEvent("add", "005"), "0403\n", "6001\n", "001/004", false, true,
         "<7>got USB device: node=001/005|<7>USB device VID/PID: 0403:6001|"},
        {usbEvent("remove", "004"), "", "", "001/004", true, false,
         "<7>got USB device: node=001/004|<7>udev: FTDI USB device (001/004) removed|"},
        {"BUSNUM=001|DEVTYPE=usb_device|ACTION=remove", "", "", "001/004", false, false,
         "<7>can't get device node path|"},
        {usbEvent("add", "007"), "403", "0x6001\nmore", "", true, true,
         "<7>got USB device: node=001/007|<7>USB device VID/PID: 403:0x6001|"
         "<7>udev: FTDI USB device (0403:6001) inserted|"},
        {usbEvent("add", "008"), "046d\n", "6001\n", "", false, true,
         "<7>got USB device: node=001/008|<7>USB device VID/PID: 046d:6001|"},
        {usbEvent("add", "008"), "0403\n", "6015\n", "", false, true,
         "<7>got USB device: node=001/008|<7>USB device VID/PID: 0403:6015|"},
        {usbEvent("add", "008"), "0403 \n", "", "", false, true,
         "<7>got USB device: node=001/008|<3>read file error: /sys/.." + folder +
             "/idProduct: Success|<7>USB device VID/PID: 0403 :|"
             "<3>can't get USB device VID/PID (0403 /)|"},
    };
    for (const Case& test : cases) {
        const std::string watched = test.watched;
        putSysfs(test.vendor, test.product);
        send(test.event);
        world.trace.clear();
        EXPECT_EQ(
            watched.empty() ? monitor.waitForDevice(0x0403, 0x6001) : monitor.checkRemoved(watched),
            test.result);
        EXPECT_EQ(monitor.added, test.added);
        EXPECT_EQ(world.take(), std::string("<7>wait for vid=") +
                                    (watched.empty() ? "0403, pid=6001" : "0000, pid=0000") +
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
    EXPECT_TRUE(monitor.takeHeard());  // nothing tells
    EXPECT_EQ(dup(0), FD_SETSIZE);     // nothing was left open
    closefrom(first);
}

TEST_F(MonitorTest, KeepsWhatComesWhileAUnitIsOpened) {
    UeventMonitor monitor;
    send(usbEvent("change", "004"));
    ASSERT_TRUE(monitor.checkRemoved("001/004"));
    ASSERT_TRUE(monitor.takeStayingUnit());
    EXPECT_FALSE(monitor.takeStayingUnit());
    send(usbEvent("bind", "004"));
    monitor.settle();  // nothing says that the unit is configured
    send(usbEvent("add", "005"));
    monitor.keepArrivalBacklog();
    EXPECT_FALSE(monitor.takeOverrun(true));  // not before all is handled
    write("bConfigurationValue", "1\n", 1);
    send(usbEvent("unbind", "004"));
    monitor.takeHeard();
    monitor.settle();
    EXPECT_FALSE(monitor.takeHeard());  // at once

    EXPECT_TRUE(monitor.checkRemoved("001/004"));
    EXPECT_TRUE(monitor.tellsOfArrival());
    EXPECT_FALSE(monitor.checkRemoved("001/004"));
    EXPECT_TRUE(monitor.added);
    EXPECT_TRUE(monitor.checkRemoved("001/004"));
    EXPECT_FALSE(monitor.tellsOfArrival());
    EXPECT_TRUE(monitor.takeOverrun(true));
}

TEST_F(MonitorTest, EndsWithItsBacklogThoughEventsHaveNoEnd) {
    UeventMonitor monitor;
    int looks = 0;
    world.onReceive = [&] {
        if (++looks > 1000) return;
        // More than the socket holds: then some looks find only that events were lost.
        for (int i = 0; i < 10; ++i) send(usbEvent("bind", "004"));
    };
    send(usbEvent("bind", "004"));
    monitor.keepArrivalBacklog();
    EXPECT_EQ(looks, 64);

    looks = 0;
    monitor.settle();
    EXPECT_LT(looks, 64);
}

TEST_F(MonitorTest, TellsWhetherTheDeviceStays) {
    struct Case {
        const char *action, *attribute, *node;
        bool stays;
    } const cases[] = {
        {"change", "idVendor", "/dev/bus/usb/001/004", true},
        {"remove", "idVendor", "/dev/bus/usb/001/004", false},
        {"change", "other", "/dev/bus/usb/001/004", false},
        {"change", "idVendor", "/dev/bus/usb/001/005", false},  // it is its successor's
        {"change", "idVendor", "/proc/bus/usb/001/005", false},
        {"change", "idVendor", "/dev/bus/usb/002/005", true},  // this bus has no nodes
    };
    for (const Case& test : cases) {
        std::filesystem::remove_all(folder + "/idVendor");
        write(test.attribute, "", 1);
        putNode(test.node);
        const Uevent event = {true, test.action, folder, "001", "004"};
        EXPECT_EQ(event.deviceStays(), test.stays) << test.action << test.attribute << test.node;
    }
}

}  // namespace
