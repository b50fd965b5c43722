#include "alarmsections.h"

#include <strings.h>

#include "iniwriter.h"

IniFile::Sections sectionsOf(const RetainedAlarms::Alarms& alarms, const std::string& prefix) {
    IniFile::Sections sections;
    for (const auto& [name, alarm] : alarms) {
        std::string section = prefix;
        section.append("/").append(name);
        sections[section][alarm.key] = alarm.text;
    }
    return sections;
}

bool updateSections(std::string& text, const std::string& prefix, bool withAlarms,
                    const IniFile::Sections& wanted) {
    const std::string below = prefix + "/";
    IniFile::Sections present;
    forEachAssignment(
        text, [&](const std::string& section, const std::string& key, const std::string& value) {
            const bool isAlarm = strncasecmp(section.c_str(), below.c_str(), below.size()) == 0;
            const bool isOwn = strcasecmp(section.c_str(), prefix.c_str()) == 0;
            if (isOwn || (isAlarm && withAlarms)) present[section][key] = value;
        });

    IniText ini(text);
    bool changed = false;
    for (const auto& [section, keys] : present) {
        const auto kept = wanted.find(section);
        for (const auto& assignment : keys) {
            const std::string& key = assignment.first;
            if (kept == wanted.end() || kept->second.count(key) == 0) {
                changed |= ini.remove(&section, key);
            }
        }
    }
    for (const auto& [section, keys] : wanted) {
        const auto known = present.find(section);
        for (const auto& [key, value] : keys) {
            const bool same = known != present.end() && known->second.count(key) > 0 &&
                              known->second.at(key) == value;
            if (same) continue;
            ini.set(section, key, value);
            changed = true;
        }
    }
    if (changed) text = ini.text();
    return changed;
}
