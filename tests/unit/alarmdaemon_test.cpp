#include "alarmdaemon.h"

#include <csignal>

#include "daemonstate.h"
#include "world.h"

namespace {

const char* const opening = "open 004";
const char* const cycle = "<7>wait for vid=0000";
const char* const waiting = "<7>wait for vid=0403";

// What the course in the VM cannot show, or only by chance. Runs the whole loop, with SIGPIPE
// ignored, on a script: at each of its lines of the trace, in order, something happens. A cycle
// without a script line gets a meaningless event, so that no test waits for time to pass.
class AlarmDaemonTest : public KernelEventsTest {
protected:
    struct Step {
        const char* line;  // how the awaited line begins
        std::function<void()> happens;
    };

    void SetUp() override {
        KernelEventsTest::SetUp();
        signal(SIGPIPE, SIG_IGN);
        DaemonState::settings = IniFile(write("settings", "[cu/params/3]\nLogDebug=3", 1));
        DaemonState::alarms = IniFile(folder + "/alarms");
    }

    void usb(const char* action) const { send(usbEvent(action, "004")); }

    // What was seen of the unit and the loop, a word for each line of the table.
    std::string run(const std::vector<Step>& script) {
        static const std::pair<const char*, const char*> words[] = {
            {"find_all", "find"},
            {"open 004", "open"},
            {"bitmode 33 20", "3"},
            {"disable_bitbang", "off"},
            {"usb_close", "close"},
            {"ftdi_deinit", "end"},
            {"<7>wait device inserted", "wait"},
            {"<7>device node /dev/bus/usb/001/004 is gone", "gone"},
        };
        DaemonState::running = 0;
        DaemonState::stopRequested = 0;
        cycles = 0;
        std::size_t next = 0;
        std::string seen;
        world.onTrace = [&](const std::string& line) {
            for (const auto& [begin, word] : words) {
                if (line.rfind(begin, 0) == 0)
                    seen += (seen.empty() ? "" : " ") + std::string(word);
            }
            if (line.rfind(cycle, 0) == 0) ++cycles;
            if (next < script.size() && line.rfind(script[next].line, 0) == 0) {
                script[next++].happens();
            } else if (line.rfind(cycle, 0) == 0) {
                send("x");
                if (cycles == 1000) raise(SIGKILL);  // the loop does not end
            }
        };
        {
            AlarmDaemon daemon;
            EXPECT_EQ(daemon.run(), 0);
        }
        world.onTrace = nullptr;
        EXPECT_EQ(next, script.size());
        return seen;
    }

    static void stop() { raise(SIGTERM); }

    int cycles = 0;
};

TEST_F(AlarmDaemonTest, TakesWhatComesWithTheOpeningForTheArrival) {
    world.attach("004");
    EXPECT_EQ(run({{opening, [&] { usb("bind"); }},
                   {cycle, [] {}},
                   {cycle, [&] { usb("change"); }},
                   {cycle, stop}}),
              "find open 3 off close wait find open 3 off close end");
    EXPECT_EQ(run({{opening, [&] { usb("remove"); }}, {waiting, stop}}),
              "find open 3 off close wait end");
}

TEST_F(AlarmDaemonTest, LooksForTheNodeAfterAFailedWrite) {
    world.attach("004");
    for (const char* moment : {opening, cycle}) {
        const auto leave = [&] {
            putNode("");
            if (moment == cycle) send("x");
        };
        putNode("/dev/bus/usb/001/004");
        world.results["bitmode"] = {-1};
        EXPECT_EQ(run({{moment, leave}, {"<7>wait device inserted", stop}}),
                  "find open 3 gone close wait end");
    }
    // Where there was no node at the opening, nothing can be told.
    world.results["bitmode"] = {-1};
    EXPECT_EQ(run({{"bitmode", [] {}}, {"bitmode", [] {}}, {cycle, stop}}),
              "find open 3 3 off close end");
}

TEST_F(AlarmDaemonTest, HonoursAStopRequestAtAnyMoment) {
    for (const char* moment : {"find_all", "<7>wait device inserted", waiting}) {
        EXPECT_EQ(run({{moment, stop}}), "find wait end") << moment;
    }
    // While the unit settles, before the opening.
    EXPECT_EQ(run({{waiting, [&] { usb("add"); }}, {"<7>udev: FTDI", stop}}), "find wait end");
    world.attach("004");
    for (const char* moment : {"find_all", "eeprom", "bitmode", cycle}) {
        EXPECT_EQ(run({{moment, stop}}), "find open 3 off close end") << moment;
    }
    world.results["bitmode"] = {-1};
    EXPECT_EQ(run({{"bitmode", stop}}), "find open 3 close end");
    EXPECT_EQ(cycles, 0);
}

}  // namespace
