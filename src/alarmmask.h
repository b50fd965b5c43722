#pragma once

#include <cstdint>

#include "inifile.h"

// The alarm state: 0 no alarm, 1 ALARM1 raised and no ALARM2, 2 ALARM2 raised, whatever ALARM1
// does.
using AlarmMask = std::uint8_t;

// The output levels that show each AlarmMask: bit 0 is CBUS0, bit 1 CBUS1.
constexpr std::uint8_t pinValues[] = {3, 1, 2};

// Reduces the alarms document to its state: any section that holds a key ALARM1 or ALARM2, in
// any letter case and with any value (0 and the empty one included), raises that alarm.
AlarmMask evaluateAlarmMask(const IniFile& alarms);
