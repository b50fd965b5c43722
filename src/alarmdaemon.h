#pragma once

#include "tq5ftdi.h"
#include "ueventmonitor.h"

// The handler of SIGINT, SIGTERM and SIGQUIT: asks the loop to end, then raises SIGPIPE. Where
// SIGPIPE has its default action that ends the process at once, without clean-up; where the
// parent left it ignored, the loop ends in order: bit-bang mode off, unit closed, exit status 0.
void onSignal(int signalNumber);

// The daemon: mirrors the alarms file onto the unit's pins and follows the unit's coming and
// going.
//
//   alarm   none   ALARM1   ALARM2
//   CBUS0   high   high     low
//   CBUS1   high   low      high
class AlarmDaemon {
public:
    // Prepares the driver, then applies the debug level of the settings.
    AlarmDaemon();

    // Runs until a stop signal; returns the process's exit status, always 0.
    int run();

private:
    // What the loop does next: search all attached units, search again for one that arrived
    // unheard, open the one whose arrival was reported, wait for an arrival, or return.
    enum class Step { search, rescan, open, wait, end };

    // Mirrors the alarms onto the open unit's pins until it is removed (and then closed) or a
    // stop is requested.
    Step serveUnit(UeventMonitor& monitor);

    // Waits one second at most for an event. True when the open unit has left: an event says so,
    // or its device node is gone where that may have happened unheard.
    bool unitHasLeft(UeventMonitor& monitor, bool writeFailed);

    // Waits until a unit arrives, a rescan is due, or a stop is requested.
    Step waitForUnit(UeventMonitor& monitor);

    TQ5Ftdi device;
};
