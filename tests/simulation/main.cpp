// simulation [--hours N] [--life HOURS] [--seed N] [--jobs N] [--only TEXT] [--progress]
// simulation --order, or --order-ftdi-sio with the kernel's own driver
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "life.h"
#include "order.h"
#include "world.h"

namespace {

// What the processes share.
struct Progress {
    std::atomic<std::uint64_t> next;   // the seed of the next life
    std::atomic<std::uint64_t> lives;  // that have ended
    std::atomic<std::uint64_t> faults;
    std::atomic<bool> failed;
};

void print(const Progress& progress, std::uint64_t hours, char end) {
    std::printf("%llu hours, %llu faults%c",
                static_cast<unsigned long long>(progress.lives * hours),
                static_cast<unsigned long long>(progress.faults), end);
    std::fflush(stdout);
}

}  // namespace

int main(int count, char* arguments[]) {
    std::uint64_t hours = 20;
    std::uint64_t seed = 1;
    int life = 20;
    long jobs = sysconf(_SC_NPROCESSORS_ONLN);
    bool showsProgress = false;
    for (int i = 1; i < count; ++i) {
        const std::string option = arguments[i];
        if (option == "--order" || option == "--order-ftdi-sio") printOrder(option != "--order");
        if (option == "--progress") {
            showsProgress = true;
            continue;
        }
        if (++i == count) return 2;
        if (option == "--hours")
            hours = std::strtoull(arguments[i], nullptr, 10);
        else if (option == "--life")
            life = std::atoi(arguments[i]);
        else if (option == "--seed")
            seed = std::strtoull(arguments[i], nullptr, 10);
        else if (option == "--jobs")
            jobs = std::atol(arguments[i]);
        else if (option == "--only")
            World::onlyRule = arguments[i];
        else
            return 2;
    }
    const std::uint64_t lastSeed =
        seed + (hours + static_cast<unsigned>(life) - 1) / static_cast<unsigned>(life);
    auto* progress = static_cast<Progress*>(
        mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    progress->next = seed;
    for (long job = 0; job < jobs; ++job) {
        if (fork() != 0) continue;
        for (;;) {
            const std::uint64_t own = progress->next++;
            if (own >= lastSeed || progress->failed) _exit(0);
            progress->faults += live(own, life);
            ++progress->lives;
        }
    }
    int status = 0;
    for (long running = jobs; running > 0;) {
        if (showsProgress) print(*progress, static_cast<unsigned>(life), '\r');
        int ended = 0;
        if (waitpid(-1, &ended, showsProgress ? WNOHANG : 0) <= 0) {
            usleep(500'000);
            continue;
        }
        --running;
        if (ended != 0) {
            status = 1;
            progress->failed = true;
        }
    }
    print(*progress, static_cast<unsigned>(life), '\n');
    return status;
}
