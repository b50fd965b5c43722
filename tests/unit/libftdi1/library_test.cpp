#include <pthread.h>

#include <csignal>
#include <cstdlib>

#include "alarmdaemon.h"
#include "daemonstate.h"
#include "world.h"

namespace {

int contexts = 0;
int eventsHandled = 0;

bool takesStopSignals() {
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return sigismember(&mask, SIGTERM) == 0 && sigismember(&mask, SIGPIPE) == 0;
}

using LibraryTest = WorldTest;

TEST_F(LibraryTest, LooksAnewAtEachSearch) {
    TQ5Ftdi unit;
    contexts = 0;
    EXPECT_FALSE(unit.openBySearch());
    EXPECT_EQ(contexts, 0);
    EXPECT_TRUE(takesStopSignals());
    world.attach("004");
    world.results["libusb_init"] = {-1, 0};
    world.take();
    EXPECT_FALSE(unit.openBySearch());
    EXPECT_EQ(contexts, 0);
    EXPECT_EQ(world.take(), "<3>ftdi_usb_find_all failed: reason|");
    EXPECT_TRUE(unit.openBySearch());
    EXPECT_EQ(contexts, 1);
    unit.close();
    EXPECT_EQ(contexts, 0);
}

TEST_F(LibraryTest, InitialisesAnewWhatFailedEarlyAtBoot) {
    world.attach("004");
    world.results["ftdi_init"] = {-3, -3, 0};
    TQ5Ftdi unit;
    EXPECT_FALSE(unit.openBySearch());
    EXPECT_TRUE(unit.openBySearch());
}

TEST_F(LibraryTest, ClosesWhatLeftDuringTheOpening) {
    world.attach("004");
    world.results["open"] = {-12};
    TQ5Ftdi unit;
    EXPECT_FALSE(unit.openBySearch());
    EXPECT_EQ(world.take(),
              "find_all 0403:6001|open 004|usb_close|"
              "<3>unable to open ftdi device: reason|");
}

using LoopTest = KernelEventsTest;

TEST_F(LoopTest, HandlesWhatLibusbNotedAfterAnEventOnly) {
    signal(SIGPIPE, SIG_IGN);
    DaemonState::settings = IniFile(write("settings", "[cu/params/3]\nLogDebug=3", 1));
    DaemonState::stopRequested = 0;
    world.attach("004");
    eventsHandled = 0;
    int cycles = 0;
    world.onTrace = [&](const std::string& line) {
        if (line.rfind("<7>wait for vid=0000", 0) != 0) return;
        ++cycles;
        if (cycles == 2) send("x");
        if (cycles == 4) raise(SIGTERM);
    };
    EXPECT_EQ(AlarmDaemon().run(), 0);
    world.onTrace = nullptr;
    EXPECT_EQ(eventsHandled, 1);
}

}  // namespace

extern "C" {

int libusb_init(libusb_context** context) {
    EXPECT_FALSE(takesStopSignals());
    const int result = world.result("libusb_init");
    if (result != 0) return result;
    ++contexts;
    *context = reinterpret_cast<libusb_context*>(&contexts);
    return 0;
}

void libusb_exit(libusb_context*) { --contexts; }

int libusb_handle_events_timeout_completed(libusb_context* context, timeval* limit, int*) {
    EXPECT_TRUE(context);
    ++eventsHandled;
    return static_cast<int>(limit->tv_sec + limit->tv_usec);
}

int libusb_get_device_descriptor(libusb_device* dev, libusb_device_descriptor* descriptor) {
    *descriptor = dev->descriptor;
    return 0;
}

std::uint8_t libusb_get_bus_number(libusb_device*) { return 1; }

std::uint8_t libusb_get_device_address(libusb_device* dev) {
    return static_cast<std::uint8_t>(std::atoi(dev->filename));
}

int libusb_reset_device(libusb_device_handle*) {
    world.add("usb_reset");
    return -1;
}
}
