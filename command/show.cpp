#include "show.h"

#include <err.h>
#include <sys/stat.h>
#include <sysexits.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>

namespace {

void printAlarms(const IniFile& alarms) {
    std::deque<std::string> names;
    alarms.sectionNames(names);
    for (const std::string& name : names) {
        bool named = false;
        for (const char* key : alarmKeys) {
            if (!alarms.hasKey(name, key)) continue;
            if (!named) std::printf("[%s]\n", printable(name).c_str());
            named = true;
            const std::string text = printable(alarms.value(name, key, ""));
            std::printf("    %s%s%s\n", key, text.empty() ? "" : " ", text.c_str());
        }
    }
}

}  // namespace

const char* levelName(AlarmMask mask, int output) {
    return (pinValues[mask] >> output & 1) != 0 ? "high" : "low";
}

std::string printable(std::string text) {
    for (std::size_t index = 0; index < text.size(); ++index) {
        const auto byte = static_cast<unsigned char>(text[index]);
        // UTF-8 has further ones in two bytes, C2 80 to C2 9F.
        const bool isSecond = index > 0 && text[index - 1] == '\xc2' && byte >= 0x80 && byte < 0xa0;
        if (isSecond) text.erase(--index, 1);
        if (isSecond || byte < ' ' || byte == 0x7f) text[index] = '?';
    }
    return text;
}

int show(const std::string& path) {
    IniFile alarms("");
    struct stat status = {};
    const bool exists = stat(path.c_str(), &status) == 0;
    // What is no file could make the reader wait without end.
    if (exists && !S_ISREG(status.st_mode)) {
        warnx("%s: is not a regular file", path.c_str());
        return EX_NOINPUT;
    }
    // A missing file is a state of its own, a missing directory a mistake.
    const std::string folder = path.substr(0, path.rfind('/') + 1);
    if (exists ? !alarms.load(path)
               : errno != ENOENT || path.empty() ||
                     (!folder.empty() && access(folder.c_str(), F_OK) != 0)) {
        warn("%s", path.c_str());
        return errno == EACCES ? EX_NOPERM : EX_NOINPUT;
    }

    printAlarms(alarms);
    const AlarmMask mask = evaluateAlarmMask(alarms);
    std::printf("CBUS0 %s  CBUS1 %s  %s\n", levelName(mask, 0), levelName(mask, 1),
                alarmNames[mask]);
    if (exists) {
        // Not the modification time, which numbers the versions and may run ahead.
        char time[sizeof "2026-11-25 12:00:00"];
        tm local = {};
        std::strftime(time, sizeof time, "%F %T", localtime_r(&status.st_ctime, &local));
        std::printf("%s, last changed %s\n", path.c_str(), time);
    } else {
        std::printf("%s does not exist; a unit keeps what it shows until it does\n", path.c_str());
    }
    return mask;
}
