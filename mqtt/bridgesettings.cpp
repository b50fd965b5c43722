#include "bridgesettings.h"

#include <mosquitto.h>
#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "alarmsections.h"
#include "conversions.h"
#include "iniwriter.h"
#include "logger.h"
#include "textfile.h"

namespace {

// The daemon reads a file of 1 MB, and the longest alarms take less than 500 bytes each.
constexpr int mostAlarms = 1000;

struct Setting {
    const char* section;
    const char* key;
    std::string BridgeSettings::*text;
    int BridgeSettings::*number = nullptr;  // instead, within these limits
    int least = 0;
    int most = 0;
};

constexpr Setting known[] = {
    {"broker", "Host", &BridgeSettings::host},
    {"broker", "Port", nullptr, &BridgeSettings::port, 1, 65535},
    {"broker", "User", &BridgeSettings::user},
    {"broker", "PasswordFile", &BridgeSettings::passwordFile},
    {"broker", "CaFile", &BridgeSettings::caFile},
    {"broker", "CertFile", &BridgeSettings::certFile},
    {"broker", "KeyFile", &BridgeSettings::keyFile},
    {"broker", "Silence", nullptr, &BridgeSettings::silenceSeconds, 5, 86400},
    {"alarms", "Topic", &BridgeSettings::topic},
    {"alarms", "Prefix", &BridgeSettings::prefix},
    {"alarms", "File", &BridgeSettings::alarmsFile},
    {"alarms", "Limit", nullptr, &BridgeSettings::maxAlarms, 1, mostAlarms},
    {"status", "Topic", &BridgeSettings::statusTopic},
    {"status", "Name", &BridgeSettings::name},
    {"status", "UnitFile", &BridgeSettings::unitFile},
    {"status", "Discovery", &BridgeSettings::discovery},
};

// Why an assignment cannot be used, or null.
const char* take(BridgeSettings& settings, const std::string& section, const std::string& key,
                 const std::string& value) {
    for (const Setting& setting : known) {
        if (strcasecmp(setting.section, section.c_str()) != 0 ||
            strcasecmp(setting.key, key.c_str()) != 0) {
            continue;
        }
        if (setting.text) {
            settings.*setting.text = value;
            return nullptr;
        }
        int number = 0;
        if (!toInt(value, number, 10)) return "is not a number";
        if (number < setting.least || number > setting.most) return "is out of range";
        settings.*setting.number = number;
        return nullptr;
    }
    return "there is no such setting";
}

bool isTopic(const std::string& topic) {
    return !topic.empty() && topic.front() != '/' && topic.back() != '/' &&
           topic.find_first_of("\"\\") == std::string::npos &&
           mosquitto_pub_topic_check(topic.c_str()) == MOSQ_ERR_SUCCESS;
}

// It stands in topics, client IDs and JSON, whose rules these letters satisfy.
bool isName(const std::string& name) {
    constexpr const char* letters =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";
    return !name.empty() && name.find_first_not_of(letters) == std::string::npos;
}

bool isBelow(const std::string& topic, const std::string& base) {
    return (topic + "/").compare(0, base.size() + 1, base + "/") == 0;
}

}  // namespace

bool readBridgeSettings(const std::string& path, BridgeSettings& settings) {
    bool good = true;
    const auto refuse = [&](const char* section, const char* key, const char* reason) {
        logError("%s: [%s] %s: %s", path.c_str(), section, key, reason);
        good = false;
    };

    std::string text;
    if (!readText(path, text)) {
        logError("%s: %s", path.c_str(), std::strerror(errno));
        return false;
    }
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
    if (settings.host.empty()) refuse("broker", "Host", "is empty");
    if (!isTopic(settings.topic)) refuse("alarms", "Topic", "is no topic");
    if (!isTopic(settings.statusTopic)) refuse("status", "Topic", "is no topic");
    if (isBelow(settings.statusTopic, settings.topic)) {
        refuse("status", "Topic", "is among the alarms");
    }
    if (!settings.discovery.empty() && !isTopic(settings.discovery)) {
        refuse("status", "Discovery", "is no topic");
    }
    if (!isName(settings.name)) refuse("status", "Name", "has others than letters, digits, . _ -");
    if (settings.prefix.empty() || iniHeader(settings.prefix).empty()) {
        refuse("alarms", "Prefix", "cannot name a section");
    }
    if (settings.alarmsFile.empty() || settings.alarmsFile.front() != '/') {
        refuse("alarms", "File", "is no absolute path");
    }
    if (settings.certFile.empty() != settings.keyFile.empty()) {
        refuse("broker", "CertFile", "goes with KeyFile");
    }
    if (settings.caFile.empty() && !settings.certFile.empty()) {
        refuse("broker", "CaFile", "is needed for TLS");
    }
    for (const Setting& setting : known) {
        const bool isRead = std::string(setting.section) == "broker" &&
                            std::string(setting.key).find("File") != std::string::npos;
        if (!isRead) continue;
        const std::string& file = settings.*setting.text;
        if (!file.empty() && access(file.c_str(), R_OK) != 0) {
            refuse(setting.section, setting.key, "cannot be read");
        }
    }
    if (!settings.passwordFile.empty()) {
        readText(settings.passwordFile, settings.password);
        settings.password.resize(std::min(settings.password.size(), settings.password.find('\n')));
        if (settings.user.empty()) refuse("broker", "User", "is needed with a password");
    }
    return good;
}
