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
// has happened. One seed makes one world.
class World {
public:
    explicit World(std::uint64_t ownSeed)
        : state(ownSeed * 0x9e3779b97f4a7c15 + 1), seed(ownSeed) {}

    Time now = 0;

    // A number below `count`; true once in `count` times; a time from one to the other.
    std::uint32_t random(std::uint32_t count);
    bool once(std::uint32_t count) { return random(count) == 0; }
    Time between(Time least, Time most);

    // Lets something happen so much later.
    void after(Time delay, std::function<void()> what);

    // The daemon is busy, and the world goes on, for so long.
    void pass(Time duration);

    // The daemon sleeps until the condition is met; false if it is not before the time is up.
    bool wait(const std::function<bool()>& condition, Time duration = never);

    // SIGSTOP: the daemon's next call returns only then (signal(7): stopped until SIGCONT).
    void stopDaemonUntil(Time end) { stoppedUntil = end; }
    Time daemonRunsSince() const { return stoppedUntil; }

    // A line of the history.
    void note(const char* format, ...) __attribute__((format(printf, 2, 3)));

    // A rule is broken: prints seed, time, rule and the last lines, and ends the process with 1.
    void fail(const char* format, ...) __attribute__((format(printf, 2, 3)));

    // When not empty only rules with this text in them count.
    static std::string onlyRule;

private:
    bool step(Time end);

    std::uint64_t state;
    std::uint64_t seed;
    Time stoppedUntil = 0;
    std::multimap<Time, std::function<void()>> events;
    std::deque<std::pair<Time, std::string>> history;
};

// The world of the life that is being lived; null outside, when nothing is there to stand in for.
extern World* world;

// What the stand-ins keep is none of the daemon's memory. Each begins with one of these.
struct Outside {
    Outside() { ++depth; }
    ~Outside() { --depth; }
    Outside(const Outside&) = delete;
    Outside& operator=(const Outside&) = delete;
    static int depth;
};

// What the daemon has allocated and not freed, in blocks.
extern long daemonBlocks;
