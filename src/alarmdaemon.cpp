#include "alarmdaemon.h"

#include <unistd.h>

#include <csignal>

#include "alarmmask.h"
#include "daemonstate.h"
#include "logger.h"

namespace {

constexpr AlarmMask nothingWritten = 3;  // differs from every AlarmMask

}  // namespace

void onSignal(int) {
    DaemonState::stopRequested = 1;
    DaemonState::running = 0;
    kill(getpid(), SIGPIPE);
}

AlarmDaemon::AlarmDaemon() { applyLogLevel(); }

int AlarmDaemon::run() {
    for (const int signalNumber : stopSignals) signal(signalNumber, onSignal);

    UeventMonitor monitor;
    bool search = true;  // no arrival has been reported yet
    for (;;) {
        End end = End::notOpened;
        if (search ? device.openBySearch()
                   : monitor.added && device.openByNodePath(monitor.nodePath)) {
            end = serveUnit(monitor);
            if (!DaemonState::running) return 0;
        }
        // A unit that went unheard may have a successor that came unheard.
        search = end == End::unheard;
        if (search) continue;

        logDebug2("wait device inserted");
        if (end == End::reported && monitor.deviceStays()) continue;
        if (!waitForUnit(monitor, search)) return 0;
    }
}

AlarmDaemon::End AlarmDaemon::serveUnit(UeventMonitor& monitor) {
    AlarmMask mask = evaluateAlarmMask(DaemonState::alarms);
    AlarmMask lastWritten = nothingWritten;
    DaemonState::running = 1;
    if (DaemonState::stopRequested) DaemonState::running = 0;

    do {
        reloadSettings();
        if (reloadAlarms()) mask = evaluateAlarmMask(DaemonState::alarms);

        bool writeFailed = false;
        if (mask != lastWritten) {
            if (device.setPins(pinValues[mask])) {
                lastWritten = mask;
            } else {
                if (!DaemonState::running) break;
                writeFailed = true;
            }
        }

        // Also after a failed write: this paces the retries and notices a removal meanwhile.
        if (monitor.checkRemoved(device.nodePath) && !monitor.added) {
            device.close();
            return End::reported;
        }
        if (!monitor.hasSocket()) monitor.pause();
        if ((writeFailed || monitor.eventsWereLost()) && device.isGone()) {
            device.close();
            return End::unheard;
        }
    } while (DaemonState::running);
    return End::stopped;
}

bool AlarmDaemon::waitForUnit(UeventMonitor& monitor, bool& search) {
    while (!DaemonState::stopRequested) {
        if (monitor.eventsWereLost()) {
            logDebug2("uevents were lost: looking for a unit that arrived unheard");
            search = true;
            return true;
        }
        if (monitor.waitForDevice(TQ5Ftdi::vendorId, TQ5Ftdi::productId)) return true;
        if (!monitor.hasSocket()) monitor.pause();
    }
    return false;
}
