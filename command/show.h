#pragma once

#include <string>

// The text with a "?" for each control character, which must not steer a terminal.
std::string printable(std::string text);

// Prints what the alarms file at `path` raises, and what a unit shows for it; with lamps and
// colour if `terminal` is set. Returns the AlarmMask, or the exit status (sysexits.h) of a
// failure that it has reported.
int show(const std::string& path, bool terminal);
