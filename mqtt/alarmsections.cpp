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
    for (const auto& [section, keys] : wanted) {
        IniSection& known = present[section];
        for (const auto& [key, value] : keys) {
            const auto found = known.find(key);
            const bool isSame = found != known.end() && found->second == value;
            known.erase(key);
            if (isSame) continue;
            ini.set(section, key, value);
            changed = true;
        }
    }
    // What is left is wanted no more.
    for (const auto& [section, keys] : present) {
        for (const auto& assignment : keys) changed |= ini.remove(&section, assignment.first);
    }
    if (changed) text = ini.text();
    return changed;
}
