#include "alarmmask.h"

#include <deque>
#include <string>

AlarmMask evaluateAlarmMask(const IniFile& alarms) {
    static const std::string alarm1Key = "ALARM1";
    static const std::string alarm2Key = "ALARM2";

    std::deque<std::string> names;
    alarms.sectionNames(names);

    AlarmMask result = 0;
    for (const std::string& name : names) {
        if (alarms.hasKey(name, alarm1Key)) result |= 1;
        if (alarms.hasKey(name, alarm2Key)) return 2;
    }
    return result;
}
