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
    Step step = Step::search;
    for (;;) {
        switch (step) {
            case Step::search:
                step = device.openBySearch() ? serveUnit(monitor) : Step::wait;
                break;
            case Step::rescan:
                if (device.openNewcomer()) {
                    step = serveUnit(monitor);
                } else {
                    if (device.needsRescan()) monitor.requestRescan();
                    step = Step::wait;
                }
                break;
            case Step::open:
                step = monitor.added && device.openByNodePath(monitor.nodePath) ? serveUnit(monitor)
                                                                                : Step::wait;
                break;
            case Step::wait:
                step = waitForUnit(monitor);
                break;
            case Step::end:
                return 0;
        }
    }
}

AlarmDaemon::Step AlarmDaemon::serveUnit(UeventMonitor& monitor) {
    monitor.keepArrivalBacklog();
    AlarmMask mask = evaluateAlarmMask(DaemonState::alarms);
    AlarmMask lastWritten = nothingWritten;
    DaemonState::running = 1;
    if (DaemonState::stopRequested) DaemonState::running = 0;

    do {
        reloadSettings();
        if (reloadAlarms()) mask = evaluateAlarmMask(DaemonState::alarms);

        bool writeFailed = false;
        if (mask != lastWritten) {
            writeFailed = !device.setPins(pinValues[mask]);
            if (!writeFailed) lastWritten = mask;
            if (writeFailed && !DaemonState::running) break;
        }

        // Also after a failed write: this paces the retries and notices a removal meanwhile.
        if (unitHasLeft(monitor, writeFailed)) {
            device.close();
            return DaemonState::running ? Step::wait : Step::end;
        }
    } while (DaemonState::running);
    return Step::end;
}

bool AlarmDaemon::unitHasLeft(UeventMonitor& monitor, bool writeFailed) {
    if (monitor.takeHeard()) device.heedEvents();
    // No event will tell of its removal, as if each were lost.
    if (!device.isNamedByEvents()) monitor.requestRescan();
    if (monitor.checkRemoved(device.nodePath) && !monitor.added) return !monitor.tellsOfArrival();
    monitor.pauseWithoutSocket();
    if (!monitor.takeOverrun(writeFailed) || !device.isGone()) return false;
    monitor.requestRescan();  // its successor may have come unheard as well
    return true;
}

AlarmDaemon::Step AlarmDaemon::waitForUnit(UeventMonitor& monitor) {
    logDebug2("wait device inserted");
    bool arrived = monitor.takeStayingUnit();
    while (!arrived) {
        if (DaemonState::stopRequested) return Step::end;
        if (monitor.claimRescan()) return Step::rescan;
        arrived = monitor.waitForDevice(TQ5Ftdi::vendorId, TQ5Ftdi::productId);
        if (monitor.takeHeard()) device.heedEvents();
        if (!arrived) monitor.pauseWithoutSocket();
    }
    monitor.settle();
    return DaemonState::stopRequested ? Step::end : Step::open;
}
