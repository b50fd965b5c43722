#pragma once

#include <csignal>
#include <string>

#include "inifile.h"

// The signals that ask the daemon to stop, in the order in which their handler is installed.
constexpr int stopSignals[] = {SIGINT, SIGTERM, SIGQUIT};

// The process-wide state: the flags of the signal handler and the two documents, which are
// built and loaded before main, settings first.
struct DaemonState {
    // 1 while the loop may go on with a connection; cleared by a stop signal only.
    static volatile unsigned char running;

    // Set by a stop signal and never cleared: `running` alone could not tell a request made
    // while no unit is connected, for it is 0 until the first connection.
    static volatile unsigned char stopRequested;

    static IniFile settings;

    // The file that the settings named at start.
    static IniFile alarms;
};

// Sets the debug level of the log from key LogDebug of section cu/params/3; anything but a
// whole decimal number counts as 0.
void applyLogLevel();

// Reloads the settings if one of their files changed, and then applies the debug level again.
void reloadSettings();

// Reloads the alarms document if its file changed; true exactly when a new version was loaded.
bool reloadAlarms();
