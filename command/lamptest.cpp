#include "lamptest.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/file.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <deque>
#include <vector>

#include "check.h"
#include "daemonview.h"
#include "iniwriter.h"
#include "show.h"

namespace {

constexpr const char* ownSection = "lamp test";
constexpr const char* ownText =
    "by 'pinwatchd-alarm test'; if it stays, that was killed, and the next one clears it";
constexpr const char* figureNames[] = {" none=", "alarm1=", " alarm2="};
constexpr std::int64_t patienceMs = 3000;
constexpr timespec nap = {0, 50000000};

volatile std::sig_atomic_t stopSignal = 0;

void onSignal(int number) { stopSignal = number; }

int finish(int status, const std::string& text, const std::string& figures = "") {
    std::puts(pluginLine({status, text, figures, ""}).c_str());
    return status;
}

// An edit that leaves this alarm alone in the test's own section, or none for 0.
SharedFile::Edit showing(AlarmMask mask) {
    return [mask](std::string& content) {
        IniText ini(content);
        bool changed = false;
        for (AlarmMask other = 1; other <= 2; ++other) {
            const std::string section = ownSection;
            if (other != mask) changed |= ini.remove(&section, alarmNames[other]);
        }
        if (mask != 0) ini.set(ownSection, alarmNames[mask], ownText);
        content = ini.text();
        return changed || mask != 0;
    };
}

AlarmMask alarmOfOthers(const std::string& path) {
    const IniFile file(path);
    std::deque<std::string> names;
    file.sectionNames(names);
    AlarmMask mask = 0;
    for (const std::string& name : names) {
        if (strcasecmp(name.c_str(), ownSection) == 0) continue;
        if (file.hasKey(name, alarmNames[2])) return 2;
        if (file.hasKey(name, alarmNames[1])) mask = 1;
    }
    return mask;
}

std::string inSeconds(std::int64_t ms) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", static_cast<double>(ms) / 1000);
    return text;
}

// Waits so long, less if another alarm is raised or a signal comes.
void hold(const std::string& path, std::int64_t ms) {
    const std::int64_t end = nowMs() + ms;
    while (nowMs() < end && stopSignal == 0 && alarmOfOthers(path) == 0) {
        nanosleep(&nap, nullptr);
    }
}

// What keeps the test from being made, or a verdict that is OK, with the unit.
Verdict obstacle(const std::string& path, UsbDevice& unit) {
    Verdict verdict = judge(path);
    const AlarmMask real = alarmOfOthers(path);
    if (verdict.status > pluginWarning) {
        verdict.text = "no lamp test: " + verdict.text;
    } else if (real != 0) {
        verdict.status = pluginWarning;
        verdict.text = std::string(alarmNames[3 - real]) + " is not tested, " +
                       (real == 1 ? "it would hide" : "it is hidden by") +
                       " an alarm: " + verdict.text;
    } else {
        bool hidden = false;
        const std::vector<pid_t> daemons = findDaemons(hidden);
        if (!daemons.empty()) unit = openedDevice(daemons.front());
        verdict.status = pluginOk;
    }
    return verdict;
}

}  // namespace

int lampTest(const std::string& path, unsigned seconds,
             void (*change)(const std::string& path, const SharedFile::Edit& edit)) {
    // The kernel takes this lock back whatever ends the test.
    const int lock = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    if (flock(lock, LOCK_EX | LOCK_NB) != 0) {
        return finish(pluginUnknown, "another lamp test is going on");
    }
    change(path, showing(0));  // what one that was killed has left
    UsbDevice unit;
    const Verdict verdict = obstacle(path, unit);
    if (verdict.status != pluginOk) return finish(verdict.status, verdict.text);

    signal(SIGPIPE, SIG_IGN);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        if (signal(number, onSignal) == SIG_IGN) signal(number, SIG_IGN);
    }
    std::string figures;
    std::string failure;
    // Shows an alarm, or none for 0. False if that fails or something else is to be shown.
    const auto shows = [&](AlarmMask mask) {
        const std::int64_t began = nowMs();
        change(path, showing(mask));
        awaitShown(path, patienceMs);
        const std::string delay = inSeconds(nowMs() - began);
        const bool reached = readPins(unit) == pinValues[mask];
        if (reached) {
            std::printf("%s s: CBUS0 %s, CBUS1 %s, %s\n", delay.c_str(), levelName(mask, 0),
                        levelName(mask, 1), alarmNames[mask]);
            std::fflush(stdout);
            if (mask != 0) hold(path, std::int64_t{1000} * seconds);
            figures += std::string(figureNames[mask]) + delay + "s";
        }
        const bool stayed = reached && readPins(unit) == pinValues[mask];
        const bool isAlone = alarmOfOthers(path) == 0;
        if (!stayed && isAlone) {
            failure = std::string(alarmNames[mask]) +
                      (reached ? " does not stay at the pins" : " is not shown within 3 seconds") +
                      ": " + judge(path).text;
        }
        return stayed && isAlone && stopSignal == 0;
    };
    if (!shows(1) || !shows(2) || !shows(0)) change(path, showing(0));
    if (stopSignal != 0) return 128 + stopSignal;
    if (!failure.empty()) return finish(pluginCritical, failure, figures);
    if (alarmOfOthers(path) != 0) {
        return finish(pluginWarning, "ended, for an alarm was raised: " + judge(path).text,
                      figures);
    }
    return finish(pluginOk, nameOf(unit) + " has shown both alarms", figures);
}
