#pragma once

#include <map>
#include <string>

#include "broker.h"

// What this machine says of itself on the broker, in retained messages:
//
//   bridge  online, or offline by the connection's last will
//   alarm   what the alarms file raises: none, ALARM1 or ALARM2; unknown if it is not up to date
//   unit    the first line of a file in which another program tells how the unit is; unknown if
//           that does so no more; not told if there is no such file
class Status {
public:
    Status(const BridgeSettings& bridgeSettings, Broker& connection);

    // Publishes what is new, and all after a new connection.
    void update(bool fileIsUpToDate);

private:
    void tell(const std::string& topic, const std::string& payload);
    void tellDiscovery();

    const BridgeSettings& settings;
    Broker& broker;
    unsigned toldReplay = 0;
    std::map<std::string, std::string> told;  // by topic
};
