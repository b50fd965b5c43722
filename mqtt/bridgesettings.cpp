#include "bridgesettings.h"

#include <mosquitto.h>
#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "conversions.h"
#include "iniwriter.h"
#include "logger.h"
#include "textfile.h"

namespace {

// The daemon reads a file of 1 MB, and the longest alarms take less than 500 bytes each.
constexpr int mostAlarms = 1000;

bool isAny(const std::string&) { return true; }

bool isGiven(const std::string& value) { return !value.empty(); }

bool isFileToRead(const std::string& path) {
    std::string text;
    return path.empty() || readText(path, text);
}

bool isAbsolute(const std::string& path) { return path.compare(0, 1, "/") == 0; }

bool isSection(const std::string& name) { return !name.empty() && !iniHeader(name).empty(); }

bool isTopic(const std::string& topic) {
    return !topic.empty() && topic.front() != '/' && topic.back() != '/' &&
           topic.find_first_of("\"\\") == std::string::npos &&
           mosquitto_validate_utf8(topic.data(), static_cast<int>(topic.size())) == 0 &&
           mosquitto_pub_topic_check(topic.c_str()) == MOSQ_ERR_SUCCESS;
}

bool isTopicOrNone(const std::string& topic) { return topic.empty() || isTopic(topic); }

// It stands in topics, client IDs and JSON, whose rules these letters satisfy.
bool isName(const std::string& name) {
    constexpr const char* letters =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";
    return !name.empty() && name.find_first_not_of(letters) == std::string::npos;
}

struct TextSetting {
    const char* section;
    const char* key;
    std::string BridgeSettings::*value;
    bool (*isGood)(const std::string&);
    const char* problem;  // of a value that is not
};

constexpr TextSetting texts[] = {
    {"broker", "Host", &BridgeSettings::host, isGiven, "is empty"},
    {"broker", "User", &BridgeSettings::user, isAny, ""},
    {"broker", "PasswordFile", &BridgeSettings::passwordFile, isFileToRead, "cannot be read"},
    {"broker", "CaFile", &BridgeSettings::caFile, isFileToRead, "cannot be read"},
    {"broker", "CertFile", &BridgeSettings::certFile, isFileToRead, "cannot be read"},
    {"broker", "KeyFile", &BridgeSettings::keyFile, isFileToRead, "cannot be read"},
    {"alarms", "Topic", &BridgeSettings::topic, isTopic, "is no topic"},
    {"alarms", "Prefix", &BridgeSettings::prefix, isSection, "cannot name a section"},
    {"alarms", "File", &BridgeSettings::alarmsFile, isAbsolute, "is no absolute path"},
    {"status", "Topic", &BridgeSettings::statusTopic, isTopic, "is no topic"},
    {"status", "Name", &BridgeSettings::name, isAny, ""},
    {"status", "Discovery", &BridgeSettings::discovery, isTopicOrNone, "is no topic"},
};

struct NumberSetting {
    const char* section;
    const char* key;
    int BridgeSettings::*value;
    int least;
    int most;
};

constexpr NumberSetting numbers[] = {
    {"broker", "Port", &BridgeSettings::port, 1, 65535},
    {"broker", "Silence", &BridgeSettings::silenceSeconds, 5, 86400},
    {"alarms", "Limit", &BridgeSettings::maxAlarms, 1, mostAlarms},
};

// Why an assignment cannot be used, or null.
const char* take(BridgeSettings& settings, const std::string& section, const std::string& key,
                 const std::string& value) {
    const auto isMeant = [&](const char* knownSection, const char* knownKey) {
        return strcasecmp(knownSection, section.c_str()) == 0 &&
               strcasecmp(knownKey, key.c_str()) == 0;
    };
    for (const TextSetting& setting : texts) {
        if (!isMeant(setting.section, setting.key)) continue;
        settings.*setting.value = value;
        return setting.isGood(value) ? nullptr : setting.problem;
    }
    for (const NumberSetting& setting : numbers) {
        if (!isMeant(setting.section, setting.key)) continue;
        int& number = settings.*setting.value;
        if (!toInt(value, number, 10)) return "is not a number";
        return number >= setting.least && number <= setting.most ? nullptr : "is out of range";
    }
    return "there is no such setting";
}

}  // namespace

bool readBridgeSettings(const std::string& path, BridgeSettings& settings) {
    std::string text;
    if (!readText(path, text)) {
        logError("%s: %s", path.c_str(), std::strerror(errno));
        return false;
    }
    bool good = true;
    const auto refuse = [&](const char* section, const char* key, const char* reason) {
        logError("%s: [%s] %s: %s", path.c_str(), section, key, reason);
        good = false;
    };
    forEachAssignment(
        text, [&](const std::string& section, const std::string& key, const std::string& value) {
            const char* reason = take(settings, section, key, value);
            if (reason) refuse(section.c_str(), key.c_str(), reason);
        });

    if (settings.name.empty()) {
        char host[HOST_NAME_MAX + 1] = {};
        gethostname(host, sizeof host - 1);
        settings.name = host;
    }
    if (!isName(settings.name)) refuse("status", "Name", "has others than letters, digits, . _ -");
    if ((settings.statusTopic + "/").compare(0, settings.topic.size() + 1, settings.topic + "/") ==
        0) {
        refuse("status", "Topic", "is among the alarms");
    }
    if (settings.certFile.empty() != settings.keyFile.empty()) {
        refuse("broker", "CertFile", "goes with KeyFile");
    }
    if (settings.caFile.empty() && !settings.certFile.empty()) {
        refuse("broker", "CaFile", "is needed for TLS");
    }
    if (!settings.passwordFile.empty()) {
        readText(settings.passwordFile, settings.password);
        settings.password.resize(std::min(settings.password.size(), settings.password.find('\n')));
        if (settings.user.empty()) refuse("broker", "User", "is needed with a password");
    }
    return good;
}
