#pragma once

#include <string>

#include "inifile.h"

// The settings files: the primary and the one laid over it.
constexpr const char* settingsPath = "/opt/orvel/etc/orvel.conf";
constexpr const char* settingsOverlayPath = "/var/opt/orvel/etc/orvel.conf";

// The path of the alarms file: "alarms" in the data directory, key Data of section common.
inline std::string alarmsPath(const IniFile& settings) {
    return settings.value("common", "Data", "/tmp/orvel/data") + "/alarms";
}
