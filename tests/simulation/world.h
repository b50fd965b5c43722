#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>

// Virtual time in nanoseconds since the world began. It goes on only while the daemon calls
// something, and by as much as the call takes.
using Time = std::int64_t;
constexpr Time microsecond = 1000;
constexpr Time millisecond = 1000 * microsecond;
constexpr Time second = 1000 * millisecond;
constexpr Time never = INT64_MAX;

// What all stand-ins share: the clock, what is going to happen, chance, and the last lines of what
// has happened. One seed makes one world; a process lives in one only.
class World {
public:
    std::uint64_t seed = 0;
    std::uint64_t state = 0;  // of chance; the seed to begin with
    Time now = 0;
    Time stoppedUntil = 0;  // SIGSTOP: the daemon's next call returns only then (signal(7))

    // A number below `count`; true once in `count` times; a time from one to the other.
    std::uint32_t random(std::uint32_t count);
    bool once(std::uint32_t count) { return random(count) == 0; }
    Time between(Time least, Time most) { return least + (most - least) / 4096 * random(4096); }

    void after(Time delay, const std::function<void()>& what) { events.emplace(now + delay, what); }

    // The daemon is busy, and the world goes on, for so long.
    void pass(Time duration);

    // The daemon sleeps until the condition is met, or the time is up.
    void wait(const std::function<bool()>& condition, Time duration = never);

    void note(const char* format, ...) __attribute__((format(printf, 2, 3)));

    // A rule is broken: prints seed, time, rule and the last lines, and ends the process with 1.
    void fail(const char* format, ...) __attribute__((format(printf, 2, 3)));

private:
    bool step(Time end);

    std::multimap<Time, std::function<void()>> events;
    std::deque<std::string> history;
};

extern World world;

// False before main, when the daemon's documents are made, and there is nothing to read.
extern bool worldBegan;
