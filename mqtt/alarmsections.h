#pragma once

#include <string>

#include "inifile.h"
#include "retainedalarms.h"

// The sections of the alarms file for alarms that a broker holds: PREFIX/NAME. Names that differ
// in letter case alone are one section, with the alarms of both.
IniFile::Sections sectionsOf(const RetainedAlarms::Alarms& alarms, const std::string& prefix);

// Makes the sections of the bridge in an alarms file's text equal to `wanted`; all others stay.
// The bridge's are PREFIX, for alarms of its own, and if `withAlarms` is set PREFIX/NAME. False
// if nothing was to be changed.
bool updateSections(std::string& text, const std::string& prefix, bool withAlarms,
                    const IniFile::Sections& wanted);
