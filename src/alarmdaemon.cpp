#include "alarmdaemon.h"

#include <unistd.h>

#include <csignal>
#include <utility>

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
            case Step::look:
                if (device.openNewcomer()) {
                    monitor.passBurstOf(device.nodePath);
                    step = serveUnit(monitor);
                } else {
                    // The kernel may have been enumerating what was turned away.
                    monitor.missed = device.hasNewcomers();
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

        if (std::exchange(monitor.received, false)) device.handleLibraryEvents();
        // Also after a failed write: this paces the retries and notices a removal meanwhile.
        bool removed = monitor.checkRemoved(device.nodePath) && !monitor.added;
        if (!removed) {
            monitor.pauseWithoutSocket();
            // A unit that left unheard may have a successor that came unheard.
            if (monitor.mustLook() || (writeFailed && monitor.isQueueEmpty()))
                removed = monitor.missed = device.isGone();
        }
        if (removed) {
            device.close();
            return DaemonState::running ? Step::wait : Step::end;
        }
    } while (DaemonState::running);
    return Step::end;
}

AlarmDaemon::Step AlarmDaemon::waitForUnit(UeventMonitor& monitor) {
    logDebug2("wait device inserted");
    bool arrived = monitor.takeUnitThatStays();
    while (!arrived) {
        if (DaemonState::stopRequested) return Step::end;
        if (monitor.claimSearch()) return Step::look;
        arrived = monitor.waitForDevice(TQ5Ftdi::vendorId, TQ5Ftdi::productId);
        if (!arrived) monitor.pauseWithoutSocket();
    }
    monitor.passBurst();
    return Step::open;
}
