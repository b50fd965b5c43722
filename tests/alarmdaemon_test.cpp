#include "alarmdaemon.h"

#include <csignal>
#include <cstdio>

#include "daemonstate.h"
#include "kernelevents.h"

namespace {

const char* const cycle = "<7>wait for vid=0000";
const char* const waiting = "<7>wait for vid=0403";

// Runs the whole loop, with SIGPIPE ignored, on a script: at each named line of the trace, in
// order, something happens. A cycle without a script line gets a meaningless event, so that no
// test waits for time to pass.
class AlarmDaemonTest : public KernelEventsTest {
protected:
    struct Step {
        const char* line;  // how the awaited line begins
        std::function<void()> happens;
    };

    void SetUp() override {
        KernelEventsTest::SetUp();
        signal(SIGPIPE, SIG_IGN);
        DaemonState::running = 0;
        DaemonState::stopRequested = 0;
        write("settings", "[cu/params/3]\nLogDebug=3", 1);
        DaemonState::settings = IniFile(folder + "/settings");
        DaemonState::alarms = IniFile(folder + "/alarms");
    }

    void alarm(const std::string& text) { write("alarms", text, ++alarmsMtime); }

    // The calls of the driver and the messages above debug level 3, the logger's own left out.
    Lines run(const std::vector<Step>& script) {
        std::size_t next = 0;
        world.onTrace = [&](const std::string& line) {
            if (next < script.size() && line.rfind(script[next].line, 0) == 0) {
                script[next++].happens();
            } else if (line.rfind(cycle, 0) == 0) {
                send("x");
                if (world.trace.size() > 1000)
                    stop();  // the script does not go on
            }
        };
        {
            AlarmDaemon daemon;
            EXPECT_EQ(daemon.run(), 0);
        }
        EXPECT_EQ(next, script.size());
        Lines seen;
        for (const std::string& line : world.trace) {
            const bool shown = line[0] != '<' || line.rfind("<7>wait dev", 0) == 0 ||
                               line.rfind("<7>USB device 0", 0) == 0 ||
                               line.rfind("<7>uevents", 0) == 0 ||
                               line.rfind("<7>device node /", 0) == 0;
            if (shown && line.find("log") == std::string::npos)
                seen.push_back(line);
        }
        return seen;
    }

    static void stop() { raise(SIGTERM); }

    // Fills the socket's buffer, so that the events that follow are lost.
    void flood() const {
        for (int i = 0; i < 100; ++i)
            send("x");
    }

    std::time_t alarmsMtime = 100;
};

const Lines opening = {"find_all 0403:6001", "open 004", "eeprom 10"};
const Lines closing = {"disable_bitbang", "usb_close"};

Lines join(const std::vector<Lines>& parts) {
    Lines all;
    for (const Lines& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

TEST_F(AlarmDaemonTest, MirrorsAlarmsUntilStopped) {
    world.attach("004");
    EXPECT_EQ(run({{cycle, [&] { alarm("ALARM1="); }},
                   {cycle, [&] { alarm("x=1\nALARM1="); }},  // nothing to write
                   {cycle, [&] { alarm("ALARM1=\nALARM2="); }},
                   {cycle, [&] { std::remove((folder + "/alarms").c_str()); }},  // stays
                   {cycle, [&] { alarm(""); }},
                   {cycle, stop}}),
              join({opening,
                    {"bitmode 33 20", "bitmode 31 20", "bitmode 32 20", "bitmode 33 20"},
                    closing,
                    {"ftdi_deinit"}}));
}

TEST_F(AlarmDaemonTest, FollowsRemovalAndReinsertion) {
    world.attach("004");
    EXPECT_EQ(run({{cycle,
                    [&] {
                        std::remove((folder + "/idVendor").c_str());
                        sendUsb("unbind", "004");
                    }},
                   {waiting, [&] { sendUsb("remove", "004"); }},
                   {waiting,
                    [&] {
                        putSysfs("0403\n", "6001\n");
                        alarm("ALARM2=");
                        world.results["open"] = {-1};
                        sendUsb("add", "004");
                    }},
                   {waiting, [&] { sendUsb("add", "009"); }},  // no unit at that path
                   {waiting, [&] { sendUsb("add", "004"); }},
                   {cycle, stop}}),
              join({opening,
                    {"bitmode 33 20"},
                    closing,
                    {"<7>wait device inserted"},
                    {"find_all 0403:6001", "open 004", "<7>wait device inserted"},
                    {"find_all 0403:6001", "<7>wait device inserted"},
                    opening,
                    {"bitmode 32 20"},
                    closing,
                    {"ftdi_deinit"}}));
}

TEST_F(AlarmDaemonTest, RetriesFailedWritesAndNoticesRemovalMeanwhile) {
    world.attach("004");
    world.results["bitmode"] = {-1, -1, 0, -1, -1, -1};
    std::remove((folder + "/idVendor").c_str());
    EXPECT_EQ(run({{cycle, [] {}},
                   {cycle, [] {}},
                   {cycle, [&] { alarm("ALARM1="); }},
                   {cycle, [&] { sendUsb("remove", "004"); }},
                   {waiting, stop}}),
              join({opening,
                    {"bitmode 33 20", "bitmode 33 20", "bitmode 33 20", "bitmode 31 20"},
                    closing,
                    {"<7>wait device inserted", "ftdi_deinit"}}));
}

TEST_F(AlarmDaemonTest, ReopensAUnitThatStaysAfterAnEvent) {
    world.attach("004");
    EXPECT_EQ(
        run({{cycle, [&] { sendUsb("change", "004"); }},
             {cycle,
              [&] {
                  world.results["open"] = {-1};
                  sendUsb("bind", "004");
              }},
             {waiting, stop}}),
        join({opening,
              {"bitmode 33 20"},
              closing,
              {"<7>wait device inserted", "<7>USB device 001/004 is still attached after 'change'"},
              opening,
              {"bitmode 33 20"},
              closing,
              {"<7>wait device inserted", "<7>USB device 001/004 is still attached after 'bind'",
               "find_all 0403:6001", "open 004", "<7>wait device inserted", "ftdi_deinit"}}));
}

TEST_F(AlarmDaemonTest, SearchesAgainAfterLostEvents) {
    const Lines searched = {"<7>uevents were lost: looking for a unit that arrived unheard"};
    EXPECT_EQ(run({{waiting,
                    [&] {
                        flood();
                        world.attach("004");
                    }},
                   {cycle, [&] { flood(); }},  // the unit is still there
                   {cycle,
                    [&] {
                        flood();
                        putNode(false);
                    }},
                   {"disable_bitbang", [] { world.results["open"] = {-1}; }},
                   {waiting, [&] { flood(); }},
                   {cycle, stop}}),
              join({{"find_all 0403:6001", "<7>wait device inserted"},
                    searched,
                    opening,
                    {"bitmode 33 20",
                     "<7>device node /dev/bus/usb/001/004 is gone: unit removed without an event"},
                    closing,
                    {"find_all 0403:6001", "open 004", "<7>wait device inserted"},
                    searched,
                    opening,
                    {"bitmode 33 20"},
                    closing,
                    {"ftdi_deinit"}}));
}

TEST_F(AlarmDaemonTest, NoticesAtAFailedWriteThatTheNodeIsGone) {
    for (const bool nodeAtOpening : {true, false}) {
        SCOPED_TRACE(nodeAtOpening);
        putNode(nodeAtOpening);
        DaemonState::stopRequested = 0;
        world.attached.clear();
        world.attach("004");
        world.results["bitmode"] = {-1, -1};
        world.trace.clear();
        const Lines seen = run({{"bitmode", [&] { putNode(false); }},
                                {nodeAtOpening ? "find_all" : "bitmode", [] {}},
                                {cycle, stop}});
        const Lines gone = {
            "<7>device node /dev/bus/usb/001/004 is gone: unit removed without an event",
            "usb_close"};
        EXPECT_EQ(seen, join({opening,
                              {"bitmode 33 20"},
                              nodeAtOpening ? join({gone, opening}) : Lines{},
                              {"bitmode 33 20", "usb_close", "ftdi_deinit"}}));
    }
}

TEST_F(AlarmDaemonTest, HonoursAStopRequestAtAnyMoment) {
    struct Case {
        const char* line;
        bool attached;
        Lines seen;
    } const cases[] = {
        {"find_all", false, {"find_all 0403:6001", "<7>wait device inserted", "ftdi_deinit"}},
        {waiting, false, {"find_all 0403:6001", "<7>wait device inserted", "ftdi_deinit"}},
        {"eeprom", true, join({opening, {"bitmode 33 20"}, closing, {"ftdi_deinit"}})},
        {"bitmode", true, join({opening, {"bitmode 33 20"}, closing, {"ftdi_deinit"}})},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.line);
        DaemonState::stopRequested = 0;
        world.attached.clear();
        if (test.attached)
            world.attach("004");
        world.trace.clear();
        EXPECT_EQ(run({{test.line, stop}}), test.seen);
    }
}

}  // namespace
