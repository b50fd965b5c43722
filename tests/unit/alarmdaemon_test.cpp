#include "alarmdaemon.h"

#include <csignal>
#include <cstdio>

#include "daemonstate.h"
#include "world.h"

namespace {

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
        write("settings", "[cu/params/3]\nLogDebug=3", 1);
        DaemonState::settings = IniFile(folder + "/settings");
        DaemonState::alarms = IniFile(folder + "/alarms");
    }

    void alarm(const std::string& text) { write("alarms", text, ++alarmsMtime); }
    void usb(const char* action) const { send(usbEvent(action, "004")); }
    // Fills the socket's buffer, so that the events that follow are lost.
    void flood() const {
        for (int i = 0; i < 100; ++i) send("x");
    }

    // What was seen of the unit and the loop, a word for each line of the table.
    std::string run(const std::vector<Step>& script) {
        static const std::pair<const char*, const char*> words[] = {
            {"<3>bind socket: Address already in use", "deaf"},
            {"find_all", "find"},
            {"open 004", "open"},
            {"bitmode 31 20", "1"},
            {"bitmode 33 20", "3"},
            {"disable_bitbang", "off"},
            {"usb_close", "close"},
            {"ftdi_deinit", "end"},
            {"<7>wait device inserted", "wait"},
            {"<7>look for", "rescan"},
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

    std::time_t alarmsMtime = 100;
    int cycles = 0;
};

TEST_F(AlarmDaemonTest, TurnsAUnitAwayThreeTimesWhereEventsAreLost) {
    const auto leave = [&] {
        world.attached.clear();
        putNode(false);
        send("x");
    };
    const auto arriveUnheard = [&] {
        world.attach("004");
        putNode(true);
        flood();
    };
    world.attach("004");
    world.results["open"] = std::deque<int>(4, -1);
    const char* const passedOver = "<7>checking";
    EXPECT_EQ(run({{waiting, [&] { flood(); }},
                   {"open", [] {}},
                   {"open", [&] { flood(); }},
                   {passedOver, [&] { usb("add"); }},  // reported, it is opened all the same
                   {"open", [] {}},
                   {waiting, leave},
                   {waiting, arriveUnheard},  // another unit, after a round of all numbers
                   {cycle, stop}}),
              "find open wait rescan find open wait rescan find open wait rescan find wait find "
              "open wait rescan find open 3 off close end");
}

TEST_F(AlarmDaemonTest, RescansAgainWhenNothingCouldBeListed) {
    world.results["find_all"] = {0, -1};
    EXPECT_EQ(run({{waiting,
                    [&] {
                        world.attach("004");
                        flood();
                    }},
                   {cycle, stop}}),
              "find wait rescan find wait rescan find open 3 off close end");
}

TEST_F(AlarmDaemonTest, TakesWhatComesWithTheOpeningForTheArrival) {
    world.attach("004");
    EXPECT_EQ(run({{"open", [&] { usb("bind"); }},
                   {cycle, [] {}},
                   {cycle, [&] { usb("change"); }},
                   {cycle, stop}}),
              "find open 3 off close wait find open 3 off close end");
    EXPECT_EQ(run({{"open", [&] { usb("remove"); }}, {waiting, stop}}),
              "find open 3 off close wait end");
}

TEST_F(AlarmDaemonTest, LooksForTheNodeOnceAllEventsAreHandled) {
    world.attach("004");
    for (const bool reported : {true, false}) {
        putNode(true);
        world.results["bitmode"] = std::deque<int>(reported ? 2 : 1, -1);
        EXPECT_EQ(run({{cycle,
                        [&] {
                            putNode(false);
                            send("x");
                            if (reported) usb("remove");
                        }},
                       {"<7>wait device inserted", [] {}},
                       {reported ? waiting : cycle, stop}}),
                  reported ? "find open 3 3 close wait end"
                           : "find open 3 gone close wait rescan find open 3 off close end");
    }
    // It left during the opening.
    putNode(true);
    world.results["bitmode"] = {-1};
    EXPECT_EQ(run({{"open", [&] { putNode(false); }}, {"<7>wait device inserted", stop}}),
              "find open 3 gone close wait end");
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

TEST_F(AlarmDaemonTest, LooksOnceASecondWithoutASocket) {
    const UeventMonitor holder;  // of the process's netlink address
    const std::time_t start = std::time(nullptr);
    EXPECT_EQ(run({{waiting, [] {}},
                   {waiting, [&] { world.attach("004"); }},
                   {cycle, [&] { alarm("ALARM1="); }},
                   {cycle, [&] { putNode(false); }},
                   {cycle, [&] { putNode(true); }},
                   {cycle, stop}}),
              "deaf find wait rescan find wait rescan find open 3 1 gone off close wait rescan "
              "find open 1 off "
              "close end");
    EXPECT_GE(std::time(nullptr) - start, 4);  // a second each for what was waited for
}

}  // namespace
