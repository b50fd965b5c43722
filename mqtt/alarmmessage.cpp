#include "alarmmessage.h"

#include <strings.h>

#include <algorithm>

#include "iniwriter.h"
#include "trim.h"

namespace {

bool isControl(char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; }

bool isContinuation(char c) { return (static_cast<unsigned char>(c) & 0xc0) == 0x80; }

const char* refusalOf(const std::string& name) {
    if (name.empty()) return "the topic names no alarm";
    if (name.size() > maxNameBytes) return "the topic is too long";
    if (std::any_of(name.begin(), name.end(), isControl)) {
        return "the topic has control characters";
    }
    if (iniHeader("/" + name).empty()) return "the topic ends in a blank or a bracket";
    return nullptr;
}

}  // namespace

std::string oneLine(std::string text, std::size_t limit) {
    if (text.size() > limit) {
        while (limit > 0 && isContinuation(text[limit])) --limit;
        text.resize(limit);
    }
    std::replace_if(text.begin(), text.end(), isControl, ' ');
    trim(text);
    return text;
}

AlarmMessage readAlarmMessage(const std::string& base, const std::string& topic,
                              const std::string& payload) {
    AlarmMessage message;
    const std::string name = topic.substr(std::min(base.size() + 1, topic.size()));
    message.refusal = refusalOf(name);
    if (message.refusal) return message;
    message.name = name;
    if (payload.empty()) return message;

    const std::size_t end = std::min(payload.find_first_of(" \t\r\n"), payload.size());
    for (const std::string key : {"ALARM1", "ALARM2"}) {
        if (end != key.size() || strncasecmp(payload.c_str(), key.c_str(), end) != 0) continue;
        message.key = key;
        message.text = oneLine(payload.substr(end), maxTextBytes);
    }
    // The file's format has no line for a value with double quotes at both ends.
    if (iniAssignment("ALARM1", message.text).empty()) trim(message.text, "\"");
    if (message.key.empty()) message.refusal = "the payload is not ALARM1, ALARM2 or empty";
    return message;
}
