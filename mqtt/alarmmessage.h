#pragma once

#include <string>

// What a retained message says of one alarm.
struct AlarmMessage {
    std::string name;               // behind the topic that all alarms share; empty if it is none
    std::string key;                // ALARM1 or ALARM2; empty if no alarm is raised
    std::string text;               // one line of at most maxTextBytes
    const char* refusal = nullptr;  // why the message is no good one, or null
};

constexpr std::size_t maxNameBytes = 200;
constexpr std::size_t maxTextBytes = 200;

// Reads a message below `base`: "ALARM1 text" or "ALARM2 text", in any letter case, raises that
// alarm, and an empty payload none. A payload that is neither raises none, for a reason.
AlarmMessage readAlarmMessage(const std::string& base, const std::string& topic,
                              const std::string& payload);

// The text in one line that ends within `limit` bytes and divides no UTF-8 character: control
// characters are blanks in it.
std::string oneLine(std::string text, std::size_t limit);
