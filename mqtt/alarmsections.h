#pragma once

#include <string>

#include <algorithm>
#include "inifile.h"
#include "retainedalarms.h"

// Calls `use(section, key, value)` for each assignment in INI text, as IniFile would make it.
template <class Use>
void forEachAssignment(const std::string& text, Use use) {
    std::string section;
    std::string line;
    std::string value;
    std::size_t begin = 0;
    while (begin < text.size()) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        line.assign(text, begin, end - begin);
        const IniLine kind = readIniLine(line, value);
        if (kind == IniLine::header) section = line;
        if (kind == IniLine::assignment) use(section, line, value);
        begin = end + 1;
    }
}

// The sections of the alarms file for alarms that a broker holds: PREFIX/NAME. Names that differ
// in letter case alone are one section, with the alarms of both.
IniFile::Sections sectionsOf(const RetainedAlarms::Alarms& alarms, const std::string& prefix);

// Makes the sections of the bridge in an alarms file's text equal to `wanted`; all others stay.
// The bridge's are PREFIX, for alarms of its own, and if `withAlarms` is set PREFIX/NAME. False
// if nothing was to be changed.
bool updateSections(std::string& text, const std::string& prefix, bool withAlarms,
                    const IniFile::Sections& wanted);
