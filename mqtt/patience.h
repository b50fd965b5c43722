#pragma once

#include <sys/time.h>

#include <csignal>

// While it exists, a call that waits (for a lock, for a connection) is interrupted by a signal
// after 3 seconds, within which a broker awaits a sign of life, and fails with EINTR.
class Patience {
public:
    Patience() {
        struct sigaction action = {};  // no SA_RESTART
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, nullptr);
        // Again each second: the first may come just before the call.
        interrupt({{1, 0}, {3, 0}});
    }
    ~Patience() { interrupt({}); }
    Patience(const Patience&) = delete;
    Patience& operator=(const Patience&) = delete;

private:
    static void interrupt(const itimerval& times) { setitimer(ITIMER_REAL, &times, nullptr); }
};
