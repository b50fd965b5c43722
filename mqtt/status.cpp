#include "status.h"

#include <sys/stat.h>

#include <algorithm>
#include <ctime>

#include "alarmmask.h"
#include "alarmmessage.h"
#include "patience.h"
#include "textfile.h"

namespace {

constexpr std::size_t longestLine = 255;  // as Home Assistant takes it
// Written by root, who alone can tell, each minute.
constexpr const char* unitFile = "/run/pinwatchd-unit";
constexpr std::time_t unitSeconds = 300;  // after which it is too old

std::string alarmOf(const std::string& path) {
    static constexpr const char* names[] = {"none", "ALARM1", "ALARM2"};
    IniFile alarms("");
    const Patience patience;
    if (!alarms.load(path)) return "unknown";
    return names[evaluateAlarmMask(alarms)];
}

std::string unitState() {
    struct stat status = {};
    std::string text;
    if (stat(unitFile, &status) != 0) return "";
    if (status.st_mtime + unitSeconds < std::time(nullptr)) return "unknown";
    readText(unitFile, text);
    return oneLine(text.substr(0, text.find('\n')), longestLine);
}

}  // namespace

Status::Status(const BridgeSettings& bridgeSettings, Broker& connection)
    : settings(bridgeSettings), broker(connection) {}

void Status::update(bool fileIsUpToDate) {
    if (broker.replays() != toldReplay) told.clear();
    toldReplay = broker.replays();
    if (toldReplay == 0) return;
    tell(broker.statusTopic("bridge"), "online");
    tell(broker.statusTopic("alarm"), fileIsUpToDate ? alarmOf(settings.alarmsFile) : "unknown");
    const std::string unit = unitState();
    if (!unit.empty()) tell(broker.statusTopic("unit"), unit);
    if (!settings.discovery.empty()) tellDiscovery();
}

void Status::tell(const std::string& topic, const std::string& payload) {
    const auto known = told.find(topic);
    if (known != told.end() && known->second == payload) return;
    told[topic] = payload;
    broker.publish(topic, payload);
}

// The convention of Home Assistant: a sensor is described in JSON below the discovery topic.
void Status::tellDiscovery() {
    std::string id = "pinwatchd_" + settings.name;
    std::replace(id.begin(), id.end(), '.', '_');
    for (const std::string what : {"alarm", "unit"}) {
        std::string json = R"({"name":")";
        json.append(what).append(R"(","unique_id":")").append(id).append("_").append(what);
        json.append(R"(","state_topic":")").append(broker.statusTopic(what));
        json.append(R"(","availability_topic":")").append(broker.statusTopic("bridge"));
        json.append(R"(","device":{"identifiers":[")").append(id);
        json.append(R"("],"name":"pinwatchd )").append(settings.name).append(R"("}})");
        std::string topic = settings.discovery;
        topic.append("/sensor/").append(id).append("/").append(what).append("/config");
        tell(topic, json);
    }
}
