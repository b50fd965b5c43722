#pragma once

#include <syslog.h>

#include <string>

// The process's connection to syslog: the parameters of openlog and the debug level. The log
// is reopened whenever one of them changes; with the console flag set, and stderr a terminal
// at that moment, every message that passes the level is copied to stderr.
class SysLog {
    // openlog keeps using this text, so it changes only where the log is reopened at once.
    std::string ident;
    int options = 0;
    int facility = LOG_USER;

public:
    // For reading; setDebugLevel changes it.
    int debugLevel = 0;

    // The single object, made at the first call; an atexit handler destroys it.
    static SysLog* instance();

    // Destroys the single object if there is one; nothing may log afterwards.
    static void release();

    SysLog(const SysLog&) = delete;
    SysLog& operator=(const SysLog&) = delete;
    virtual ~SysLog() = default;

    // Sets the syslog identity; an empty one lets libc choose.
    void setIdent(const std::string& newIdent);

    // Sets openlog's option bits, its facility (LOG_DAEMON and the like) and whether messages
    // are copied to a terminal.
    void configure(int newOptions, int newFacility, bool newConsoleIfTty);

    // Sets the level of the debug messages that are written: 0 (none) to 3 (all). Values
    // outside are clamped.
    void setDebugLevel(int level);

    // Writes at LOG_DEBUG when the debug level is 1 or more.
    void debug(const char* format, ...) const __attribute__((format(printf, 2, 3)));

private:
    SysLog() = default;
    void reopen();
    void reopenAndTell();

    bool consoleIfTty = true;
};

// The log calls: the one chosen sets the priority. Formats are printf's, and syslog's "%m".
void logError(const char* format, ...) __attribute__((format(printf, 1, 2)));
void logWarning(const char* format, ...) __attribute__((format(printf, 1, 2)));
void logInfo(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Written at LOG_DEBUG when the debug level is at least 1, 2 or 3.
void logDebug1(const char* format, ...) __attribute__((format(printf, 1, 2)));
void logDebug2(const char* format, ...) __attribute__((format(printf, 1, 2)));
void logDebug3(const char* format, ...) __attribute__((format(printf, 1, 2)));
