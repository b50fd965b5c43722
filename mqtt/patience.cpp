#include "patience.h"

#include <sys/time.h>

#include <csignal>

namespace {

// Again each second: the first may come just before the call.
constexpr itimerval limit = {{1, 0}, {10, 0}};
constexpr itimerval none = {};

}  // namespace

Patience::Patience() {
    struct sigaction action = {};  // no SA_RESTART
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);
    setitimer(ITIMER_REAL, &limit, nullptr);
}

Patience::~Patience() { setitimer(ITIMER_REAL, &none, nullptr); }
