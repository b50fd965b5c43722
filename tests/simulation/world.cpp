#include "world.h"

#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <utility>

World* world = nullptr;
std::string World::onlyRule;
int Outside::depth = 0;
long daemonBlocks = 0;

namespace {

constexpr std::size_t historyLength = 90;

std::string format(const char* text, va_list arguments) {
    char line[400];
    vsnprintf(line, sizeof line, text, arguments);
    return line;
}

}  // namespace

std::uint32_t World::random(std::uint32_t count) {
    // splitmix64
    std::uint64_t z = (state += 0x9e3779b97f4a7c15);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
    z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
    return static_cast<std::uint32_t>(((z >> 32) * count) >> 32);
}

Time World::between(Time least, Time most) { return least + (most - least) / 4096 * random(4096); }

void World::after(Time delay, std::function<void()> what) {
    events.emplace(now + delay, std::move(what));
}

// Lets the next thing happen that is due by then.
bool World::step(Time end) {
    const auto next = events.begin();
    if (next == events.end() || next->first > end) return false;
    now = std::max(now, next->first);
    const std::function<void()> what = std::move(next->second);
    events.erase(next);
    what();
    return true;
}

void World::pass(Time duration) {
    const Time end = now + duration;
    while (step(end)) {
    }
    now = std::max(now, end);
    while (now < stoppedUntil) {
        while (step(stoppedUntil)) {
        }
        now = std::max(now, stoppedUntil);
    }
}

bool World::wait(const std::function<bool()>& condition, Time duration) {
    const Time end = duration < never - now ? now + duration : never;
    while (!condition()) {
        if (!step(end)) {
            if (end == never) fail("the daemon waits for ever");
            now = end;
            return condition();
        }
    }
    return true;
}

void World::note(const char* text, ...) {
    va_list arguments;
    va_start(arguments, text);
    if (history.size() == historyLength) history.pop_front();
    history.emplace_back(now, format(text, arguments));
    va_end(arguments);
}

void World::fail(const char* text, ...) {
    va_list arguments;
    va_start(arguments, text);
    const std::string rule = format(text, arguments);
    va_end(arguments);
    if (rule.find(onlyRule) == std::string::npos) return;
    for (const auto& [time, line] : history) {
        std::printf("%12.6f  %s\n", static_cast<double>(time) / second, line.c_str());
    }
    std::printf("FAILED seed %llu at %.6f s: %s\n", static_cast<unsigned long long>(seed),
                static_cast<double>(now) / second, rule.c_str());
    std::fflush(stdout);
    _exit(1);
}

void* operator new(std::size_t size) {
    if (Outside::depth == 0) ++daemonBlocks;
    if (void* block = std::malloc(size)) return block;
    std::abort();
}

void operator delete(void* block) noexcept {
    if (block && Outside::depth == 0) --daemonBlocks;
    std::free(block);
}

void operator delete(void* block, std::size_t) noexcept { operator delete(block); }
