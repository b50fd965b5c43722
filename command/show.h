#pragma once

#include <string>

#include "alarmmask.h"

// The name of each AlarmMask, and the keys of those that are alarms.
constexpr const char* alarmNames[] = {"no alarm", "ALARM1", "ALARM2"};
constexpr const char* alarmKeys[] = {alarmNames[1], alarmNames[2]};

// "high" or "low": how the output, 0 or 1, shows the mask.
const char* levelName(AlarmMask mask, int output);

// The text with a "?" for each control character, which must not steer a terminal.
std::string printable(std::string text);

// Prints what the alarms file at `path` raises, and what a unit shows for it. Returns the
// AlarmMask, or the exit status (sysexits.h) of a failure that it has reported.
int show(const std::string& path);
