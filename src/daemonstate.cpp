#include "daemonstate.h"

#include <ctime>

#include "conversions.h"
#include "logger.h"
#include "settings.h"

volatile unsigned char DaemonState::running = 0;
volatile unsigned char DaemonState::stopRequested = 0;
// The order of the next two counts: the alarms file's path is read from the settings.
IniFile DaemonState::settings(settingsPath, settingsOverlayPath);
IniFile DaemonState::alarms(alarmsPath(DaemonState::settings));

void applyLogLevel() {
    int level = 0;
    toInt(DaemonState::settings.value("cu/params/3", "LogDebug", ""), level, 10);
    SysLog* log = SysLog::instance();
    if (log->debugLevel != level) log->setDebugLevel(level);
}

void reloadSettings() {
    const std::time_t primaryMtime = DaemonState::settings.primaryMtime;
    const std::time_t overlayMtime = DaemonState::settings.overlayMtime;
    DaemonState::settings.reloadIfChanged();
    if (DaemonState::settings.primaryMtime != primaryMtime ||
        DaemonState::settings.overlayMtime != overlayMtime) {
        applyLogLevel();
    }
}

bool reloadAlarms() {
    const std::time_t primaryMtime = DaemonState::alarms.primaryMtime;
    DaemonState::alarms.reloadIfChanged();
    return DaemonState::alarms.primaryMtime != primaryMtime;
}
