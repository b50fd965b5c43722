// simulation [--hours N] [--life HOURS] [--seed N]
// simulation --order
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <thread>

#include "life.h"

int main(int count, char* arguments[]) {
    if (count == 2 && arguments[1] == std::string("--order")) {
        printOrder();
        return 0;
    }
    std::map<std::string, long> options = {{"--hours", 20}, {"--life", 20}, {"--seed", 1}};
    for (int i = 1; i < count; i += 2) {
        const auto option = options.find(arguments[i]);
        if (i + 1 == count || option == options.end()) return 2;
        option->second = std::strtol(arguments[i + 1], nullptr, 10);
    }
    const long life = std::max(options["--life"], 1L);
    long seed = options["--seed"];
    // A process for each life, and one at a time for each processor.
    bool failed = false;
    long left = (options["--hours"] + life - 1) / life;
    for (unsigned running = 0; running > 0 || (left > 0 && !failed);) {
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
