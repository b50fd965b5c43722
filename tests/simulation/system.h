#pragma once

// The daemon's process: its signals, its socket and its log.
struct System {
    // Calls the handler if a signal waits and is not blocked.
    void deliver(bool inWait);

    // Nothing may be open when the process has ended.
    void checkClosed() const;

    int pendingSignal = 0;
    bool blocked = false;
    bool socketOpen = false;
    int logMask = 0xff;
    void (*handler)(int) = nullptr;
};

extern System* daemonSystem;
