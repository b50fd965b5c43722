#pragma once

#include <cstdint>
#include <string>

#include "daemonview.h"

// The exit statuses of monitoring plugins (guidelines of the monitoring-plugins project).
enum PluginStatus { pluginOk, pluginWarning, pluginCritical, pluginUnknown };

struct Verdict {
    int status = pluginOk;
    std::string text;     // one line
    std::string figures;  // performance data, if there are any
    std::string moment;   // what else must stay the same for the verdict to be the same
};

// A device as messages name it: "TQ-5 alarm unit (001/004)".
std::string nameOf(const UsbDevice& device);

// Milliseconds of a clock that nobody sets.
std::int64_t nowMs();

// "OK - text | figures"
std::string pluginLine(const Verdict& verdict);

// Looks whether a daemon shows on a unit what the alarms file at `path` raises. What may pass, as
// while a unit is plugged in, is critical only once it has been so for three seconds. An empty path
// stands for the file that the settings name.
Verdict judge(const std::string& path);

// Waits until a unit shows what the file raises, but not longer than that. Where it cannot be seen,
// as by others than root, it takes the whole time.
void awaitShown(const std::string& path, std::int64_t ms);

// Judges within so many seconds and prints the line, but not "OK" with `quiet`. Returns the
// PluginStatus.
int check(const std::string& path, unsigned seconds, bool quiet);
