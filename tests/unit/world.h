#pragma once

#include <ftdi.h>
#include <gtest/gtest.h>

#include <ctime>
#include <deque>
#include <functional>
#include <map>
#include <string>

#include "listed.h"

// What the code under test meets instead of libftdi, libusb, syslog and a terminal.
// Each call, and each message that passes the log's mask, is one line of the trace, which ends
// in "|".
struct World {
    std::string trace;
    // Called for each new line, so that a test can act in the middle of a run.
    std::function<void(const std::string&)> onTrace;
    std::function<void()> onReceive;  // called after each look into a socket

    std::map<std::string, std::deque<int>> results;  // by call, used up in order; then success
    unsigned short eepromWord = 0x00aa;
    int pinsRead = -1;  // what the pins read; -1 for the levels written last
    bool listFreed = true;
    bool terminal = false;

    struct Attached {
        ListedDevice device = {};
        std::string product;
        ftdi_device_list element = {};
    };
    std::deque<Attached> attached;

    ListedDevice& attach(const std::string& file, const std::string& product = "TQ-5 unit");
    void add(const char* format, ...) __attribute__((format(printf, 2, 3)));
    int result(const std::string& call);
    // The trace so far; the next one starts empty.
    std::string take();
};

extern World world;

// A new world, a log at level 0 and an empty folder for each test.
class WorldTest : public testing::Test {
protected:
    WorldTest();
    ~WorldTest() override;

    // Writes a file of the folder with this modification time; returns its path.
    std::string write(const std::string& name, const std::string& text, std::time_t mtime) const;

    std::string folder;
};

// A test with uevents and device nodes of its own: a private network namespace, in which this
// class multicasts on the kernel's behalf, an empty /dev in a private mount namespace, and a
// folder that stands in for a device's sysfs directory. Skips where the kernel lets only root make
// namespaces, and this user is another.
class KernelEventsTest : public WorldTest {
protected:
    void SetUp() override;
    void TearDown() override;

    // Multicasts a datagram; "|" stands for NUL.
    void send(std::string datagram) const;

    // An event of a USB device of bus 001 whose sysfs directory is the test's folder.
    std::string usbEvent(const std::string& action, const std::string& devnum) const;

    // Makes this the only device node; none if it is empty.
    static void putNode(const std::string& node);

    // Writes the sysfs files of the device.
    void putSysfs(const std::string& vendor, const std::string& product) const;

private:
    int sender = -1;
};
