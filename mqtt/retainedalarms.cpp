#include "retainedalarms.h"

#include <algorithm>
#include <utility>

void RetainedAlarms::beginReplay() {
    incoming = {};
    replaying = true;
}

void RetainedAlarms::apply(const AlarmMessage& message) {
    State& state = replaying ? incoming : current;
    if (!replaying) changed = true;
    if (message.key.empty()) {
        state.alarms.erase(message.name);
    } else if (state.alarms.count(message.name) > 0 || state.alarms.size() < limit) {
        state.alarms[message.name] = {message.key, message.text};
    } else {
        state.excessKey = std::max(state.excessKey, message.key);
    }
}

void RetainedAlarms::endReplay() {
    if (!replaying) return;
    current = std::exchange(incoming, {});
    replaying = false;
    known = true;
    changed = true;
}
