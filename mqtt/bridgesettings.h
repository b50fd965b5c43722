#pragma once

#include <string>

// What /etc/pinwatchd-mqtt.conf says; pinwatchd-mqtt(8) has the meaning of each key.
struct BridgeSettings {
    std::string host = "localhost";
    int port = 1883;
    std::string user;
    std::string passwordFile;
    std::string caFile;  // TLS if there is one
    std::string certFile;
    std::string keyFile;
    int silenceSeconds = 60;

    std::string topic = "pinwatchd/alarms";
    std::string prefix = "mqtt";
    std::string alarmsFile = "/run/orvel/alarms";
    int maxAlarms = 500;

    std::string statusTopic = "pinwatchd/status";
    std::string name;  // this machine's, if none is said
    std::string discovery;

    std::string password;  // the first line of its file
};

// Reads the settings from a file. False, with all that is wrong in the log, if they cannot be used.
bool readBridgeSettings(const std::string& path, BridgeSettings& settings);
