#include "world.h"

#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>

World world;
bool worldBegan = false;

namespace {

constexpr std::size_t historyLength = 90;

std::string format(Time now, const char* text, va_list arguments) {
    char line[400];
    const int length =
        std::snprintf(line, sizeof line, "%5lld.%06lld  ", static_cast<long long>(now / second),
                      static_cast<long long>(now % second / microsecond));
    vsnprintf(line + length, sizeof line - static_cast<std::size_t>(length), text, arguments);
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

// Lets the next thing happen that is due by then.
bool World::step(Time end) {
    const auto next = events.begin();
    if (next == events.end() || next->first > end) return false;
    now = std::max(now, next->first);
    const std::function<void()> what = next->second;
    events.erase(next);
    what();
    return true;
}

void World::pass(Time duration) {
    const Time end = now + duration;
    while (step(std::max(end, stoppedUntil))) {
    }
    now = std::max({now, end, stoppedUntil});
}

void World::wait(const std::function<bool()>& condition, Time duration) {
    const Time end = duration < never - now ? now + duration : never;
    while (!condition()) {
        if (step(end)) continue;
        if (end == never) fail("the daemon waits for ever");
        now = end;
        return;
    }
}

void World::note(const char* text, ...) {
    va_list arguments;
    va_start(arguments, text);
    if (history.size() == historyLength) history.pop_front();
    history.push_back(format(now, text, arguments));
    va_end(arguments);
}

void World::fail(const char* text, ...) {
    va_list arguments;
    va_start(arguments, text);
    const std::string rule = format(now, text, arguments);
    va_end(arguments);
    for (const std::string& line : history) std::puts(line.c_str());
    std::printf("%s\nFAILED with seed %llu\n", rule.c_str(), static_cast<unsigned long long>(seed));
    std::fflush(stdout);
    _exit(1);
}
