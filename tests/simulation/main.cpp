// simulation [--hours N] [--life HOURS] [--seed N] [--only RULE]
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>

#include "life.h"

int main(int count, char* arguments[]) {
    long hours = 20;
    long life = 20;
    long seed = 1;
    for (int i = 1; i < count; i += 2) {
        const std::string option = arguments[i];
        if (i + 1 == count) return 2;
        const long value = std::strtol(arguments[i + 1], nullptr, 10);
        if (option == "--hours")
            hours = value;
        else if (option == "--life")
            life = value;
        else if (option == "--seed")
            seed = value;
        else if (option == "--only")
            world.onlyRule = arguments[i + 1];
        else
            return 2;
    }
    if (life <= 0) return 2;
    // A process for each life, and one at a time for each processor.
    bool failed = false;
    long left = (hours + life - 1) / life;
    unsigned running = 0;
    while (running > 0 || (left > 0 && !failed)) {
        if (left > 0 && !failed && running < std::thread::hardware_concurrency()) {
            if (fork() == 0) {
                live(static_cast<std::uint64_t>(seed), life);
                _exit(0);
            }
            ++running, ++seed, --left;
            continue;
        }
        int status = 0;
        wait(&status);
        --running;
        failed = failed || status != 0;
    }
    return failed ? 1 : 0;
}
