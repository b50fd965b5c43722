#include "daemonstate.h"

#include <algorithm>

#include "logger.h"
#include "world.h"

namespace {

using DaemonStateTest = WorldTest;

TEST_F(DaemonStateTest, FollowsTheLogLevel) {
    struct Step {
        const char* file;
        const char* text;
        int level;
        const char* logged;
    } const steps[] = {
        {"primary", "[CU/params/3]\nlogdebug = 2", 2, "<7>debug level changed to 2|"},
        {"primary", "[cu/params/3]\nLogDebug = 2\n", 2, ""},
        {"overlay", "[cu/params/3]\nLogDebug = 7", 3, "<7>debug level changed to 3|"},
        {"primary", "", 3, "<7>debug level changed to 3|"},  // 7 differs from 3 each time
        {"overlay", "[cu/params/3]\nLogDebug = 1 x", 0, ""},
        {"overlay", "[cu/params/3]\nLogDebug = \" 1\"", 1, "<7>debug level changed to 1|"},
        {"overlay", "[cu/params/3]\nLogDebug = 0x1", 0, ""},
    };
    DaemonState::settings = IniFile(folder + "/primary", folder + "/overlay");
    std::time_t mtime = 100;
    for (const Step& step : steps) {
        SCOPED_TRACE(step.text);
        write(step.file, step.text, ++mtime);
        world.trace.clear();
        reloadSettings();
        EXPECT_EQ(SysLog::instance()->debugLevel, step.level);
        const std::string trace = world.take();
        EXPECT_EQ(trace.substr(std::min(trace.find('<'), trace.size())), step.logged);
        reloadSettings();
        EXPECT_EQ(world.take(), "");
    }
}

}  // namespace
