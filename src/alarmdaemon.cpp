#include "alarmdaemon.h"

#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <string>

#include "alarmmask.h"
#include "daemonstate.h"
#include "logger.h"

namespace {

// Bit 0 drives CBUS0, bit 1 CBUS1; the index is the AlarmMask.
constexpr std::uint8_t pinValues[] = {3, 1, 2};
constexpr AlarmMask nothingWritten = 3;  // differs from every AlarmMask

constexpr timespec pauseWithoutSocket = {1, 0};

// Holds the stop signals back while it lives, so that none arrives between a test of a flag
// and the wait that follows; the waits themselves let them in.
class StopSignalsBlocked {
public:
    StopSignalsBlocked() {
        sigset_t stopSignals;
        sigemptyset(&stopSignals);
        sigaddset(&stopSignals, SIGINT);
        sigaddset(&stopSignals, SIGTERM);
        sigaddset(&stopSignals, SIGQUIT);
        sigprocmask(SIG_BLOCK, &stopSignals, &previous);
    }
    ~StopSignalsBlocked() { sigprocmask(SIG_SETMASK, &previous, nullptr); }
    StopSignalsBlocked(const StopSignalsBlocked&) = delete;
    StopSignalsBlocked& operator=(const StopSignalsBlocked&) = delete;

    // Stands in for the monitor's wait where it has no socket to wait on.
    void pause() const { pselect(0, nullptr, nullptr, nullptr, &pauseWithoutSocket, &previous); }

private:
    sigset_t previous;
};

// The device node of the unit at `nodePath`, or empty where the system has none for it.
std::string findDeviceNode(const std::string& nodePath) {
    for (const char* root : {"/dev/bus/usb/", "/proc/bus/usb/"}) {
        std::string node = root + nodePath;
        if (access(node.c_str(), F_OK) == 0) return node;
    }
    return "";
}

bool isGone(const std::string& deviceNode) {
    return !deviceNode.empty() && access(deviceNode.c_str(), F_OK) != 0 && errno == ENOENT;
}

}  // namespace

void onSignal(int) {
    DaemonState::stopRequested = 1;
    DaemonState::running = 0;
    kill(getpid(), SIGPIPE);
}

AlarmDaemon::AlarmDaemon() { applyLogLevel(); }

int AlarmDaemon::run() {
    signal(SIGINT, onSignal);
    signal(SIGTERM, onSignal);
    signal(SIGQUIT, onSignal);

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
    const std::string deviceNode = findDeviceNode(device.nodePath);

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
        if (unitRemoved(monitor)) {
            device.close();
            return End::reported;
        }
        if ((writeFailed || monitor.eventsWereLost()) && isGone(deviceNode)) {
            logDebug2("device node %s is gone: unit removed without an event", deviceNode.c_str());
            device.close();
            return End::unheard;
        }
    } while (DaemonState::running);
    return End::stopped;
}

bool AlarmDaemon::unitRemoved(UeventMonitor& monitor) {
    const StopSignalsBlocked blocked;
    if (!DaemonState::running) return false;
    if (!monitor.hasSocket()) blocked.pause();
    return monitor.checkRemoved(device.nodePath) && !monitor.added;
}

bool AlarmDaemon::waitForUnit(UeventMonitor& monitor, bool& search) {
    const StopSignalsBlocked blocked;
    while (!DaemonState::stopRequested) {
        if (monitor.eventsWereLost()) {
            logDebug2("uevents were lost: looking for a unit that arrived unheard");
            search = true;
            return true;
        }
        if (monitor.waitForDevice(TQ5Ftdi::vendorId, TQ5Ftdi::productId)) return true;
        if (!monitor.hasSocket()) blocked.pause();
    }
    return false;
}
