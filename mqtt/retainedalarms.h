#pragma once

#include <map>
#include <string>
#include <utility>

#include "alarmmessage.h"

// The alarms that the broker holds, as far as they are known, at most `limit` of them.
//
// After each subscription the broker sends all that it holds. So a replay is collected beside
// the alarms that were known before and takes their place when it is complete: an alarm that was
// cleared in the meantime is not in it.
class RetainedAlarms {
public:
    struct Alarm {
        std::string key;
        std::string text;
    };
    // By the name behind the shared topic, for MQTT in exact letter case.
    using Alarms = std::map<std::string, Alarm>;

    explicit RetainedAlarms(std::size_t alarmLimit) : limit(alarmLimit) {}

    void beginReplay();
    // Notes a message that is about an alarm, during a replay or later.
    void apply(const AlarmMessage& message);
    void endReplay();
    bool isReplaying() const { return replaying; }

    // Whether a replay was complete, ever.
    bool isKnown() const { return known; }
    const Alarms& alarms() const { return current.alarms; }
    // The highest of the alarms beyond the limit, of which no more is kept: empty if there were
    // none since the last replay.
    const std::string& excessKey() const { return current.excessKey; }
    // Whether there is news since this was asked last.
    bool takeChanged() { return std::exchange(changed, false); }

private:
    struct State {
        Alarms alarms;
        std::string excessKey;
    };

    std::size_t limit;
    State current;
    State incoming;
    bool replaying = false;
    bool known = false;
    bool changed = false;
};
