#include "files.h"

#include "settings.h"

Files* files = nullptr;

Files::Files() : alarms(all["/tmp/orvel/data/alarms"]) {
    writeSettings(3, false);
    writeAlarms(0);
}

// Not in order: any other time is another version.
std::time_t Files::newTime() {
    return 1'000'000'000 + static_cast<std::time_t>(++versions * 7919U % 10'000'000U);
}

void Files::writeAlarms(int mask) {
    lastChange = world->now;
    static const char* const alarmTexts[][3] = {
        {"", "[door]\nstate=closed\n", "[ALARM1]\nother=ALARM2\n"},
        {"[door]\nALARM1=open\n", "alarm1=\n", "[a]\nAlarm1=1\n[b]\nALARM3=2\n"},
        {"[door]\nALARM2=open\n", "[a]\nALARM1=1\n[b]\n  alarm2 = 0\n", "ALARM2=\n;\n[x"},
    };
    world->note("        alarms file shows %d", mask);
    alarms.exists = alarms.readable = true;
    alarms.text = alarmTexts[mask][world->random(3)];
    alarms.time = newTime();
    shown = 1U << mask;
    written |= shown;
}

void Files::removeAlarms() {
    world->note("        alarms file removed");
    lastChange = world->now;
    alarms.exists = false;
    shown = written | 1;
}

void Files::writeSettings(int level, bool overlay) {
    File& file = all[overlay ? settingsOverlayPath : settingsPath];
    lastChange = world->now;
    file.exists = true;
    file.text = "[cu/params/3]\nLogDebug=" + std::to_string(level) + "\n";
    file.time = newTime();
    (overlay ? overlayLevel : primaryLevel) = level;
}

File* Files::find(const std::string& path) {
    const auto found = all.find(path);
    return found != all.end() && found->second.exists ? &found->second : nullptr;
}
