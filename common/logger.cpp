#include "logger.h"

#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdlib>

namespace {

constexpr int maxDebugLevel = 3;
constexpr int maskWithoutDebug = LOG_UPTO(LOG_INFO);
constexpr int maskAll = LOG_UPTO(LOG_DEBUG);

SysLog* theInstance = nullptr;

}  // namespace

SysLog* SysLog::instance() {
    if (!theInstance) {
        theInstance = new SysLog;
        std::atexit(release);
    }
    return theInstance;
}

void SysLog::release() {
    delete theInstance;
    theInstance = nullptr;
}

void SysLog::setIdent(const std::string& newIdent) {
    if (newIdent == ident) return;
    ident = newIdent;
    reopen();
}

void SysLog::configure(int newOptions, int newFacility, bool newConsoleIfTty) {
    options = newOptions;
    facility = newFacility & LOG_FACMASK;
    consoleIfTty = newConsoleIfTty;
    reopenAndTell();
}

void SysLog::setDebugLevel(int level) {
    // Compared before clamping: a level out of range reopens the log each time it is set.
    if (level == debugLevel) return;
    debugLevel = std::clamp(level, 0, maxDebugLevel);
    reopenAndTell();
}

void SysLog::reopenAndTell() {
    reopen();
    debug("debug level changed to %i", debugLevel);
}

void SysLog::reopen() {
    closelog();
    setlogmask(debugLevel == 0 ? maskWithoutDebug : maskAll);
    if (options == 0) options = LOG_ODELAY;
    if (consoleIfTty && isatty(STDERR_FILENO) == 1) {
        options |= LOG_PERROR;
    } else {
        options &= ~LOG_PERROR;
    }
    options |= LOG_PID;
    openlog(ident.empty() ? nullptr : ident.c_str(), options, facility);
}

void SysLog::debug(const char* format, ...) const {
    if (debugLevel <= 0) return;
    va_list arguments;
    va_start(arguments, format);
    vsyslog(LOG_DEBUG, format, arguments);
    va_end(arguments);
}

void logError(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vsyslog(LOG_ERR, format, arguments);
    va_end(arguments);
}

void logWarning(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vsyslog(LOG_WARNING, format, arguments);
    va_end(arguments);
}

void logInfo(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vsyslog(LOG_INFO, format, arguments);
    va_end(arguments);
}

void logDebug1(const char* format, ...) {
    if (SysLog::instance()->debugLevel < 1) return;
    va_list arguments;
    va_start(arguments, format);
    vsyslog(LOG_DEBUG, format, arguments);
    va_end(arguments);
}

void logDebug2(const char* format, ...) {
    if (SysLog::instance()->debugLevel < 2) return;
    va_list arguments;
    va_start(arguments, format);
    vsyslog(LOG_DEBUG, format, arguments);
    va_end(arguments);
}

void logDebug3(const char* format, ...) {
    if (SysLog::instance()->debugLevel < 3) return;
    va_list arguments;
    va_start(arguments, format);
    vsyslog(LOG_DEBUG, format, arguments);
    va_end(arguments);
}
