#include "life.h"

#include <csignal>
#include <deque>
#include <new>
#include <vector>

#include "daemonstate.h"
#include "files.h"
#include "kernel.h"
#include "libraries.h"
#include "logger.h"
#include "rules.h"
#include "settings.h"
#include "system.h"

// src/main.cpp, under another name.
int daemonMain(int, char* arguments[]);

namespace {

// Waits for so long until a unit that was attached, or a file that was written, must show.
constexpr Time showTime = 3 * second;
constexpr Time stopTime = 15 * second;

struct Life {
    Life(std::uint64_t seed, int hours);
    void run();

    std::uint64_t faults = 0;

private:
    void build();
    void makeUnits();
    void startAndStop();
    void storm();
    void fault();
    void faultOfUnits(std::uint32_t kind);
    void faultOfFiles(std::uint32_t kind);
    void faultOfCalls();
    void stop();
    void repair();
    void check();

    struct Place {
        Hub* hub;
        std::size_t port;
    };
    Port& portOf(const Place& place) { return place.hub->ports[place.port]; }
    Place somewhere();
    // Where the unit is; false if it is not plugged in.
    bool isPlugged(const Unit& unit, Place& place);
    void plug(Unit& unit);
    void draw(Unit& unit);
    void bounce(Unit& unit);
    Unit& anyOther() { return others[world->random(static_cast<std::uint32_t>(others.size()))]; }
    Unit& anyUnit() { return world->once(3) ? anyOther() : *good; }

    World ownWorld;
    Kernel ownKernel;
    Libraries ownLibraries;
    System ownSystem;
    Files ownFiles;
    Rules ownRules;

    std::deque<Hub> hubs;  // two root hubs, then those that can be plugged in
    std::deque<Unit> others;
    Unit* good = nullptr;
    Unit theGood;
    std::vector<std::uint32_t> weights;
    Time end;
    Time started = 0;  // of the daemon
    int starts = 0;
    bool running = false;
    bool ending = false;
    bool calming = false;
    bool spoilsSocket = false;
};

// Sets the pointers by which stand-ins find the world, before the members that use them.
Life::Life(std::uint64_t seed, int hours)
    : ownWorld((world = &ownWorld, seed)), end(Time{hours} * 3600 * second) {
    kernel = &ownKernel;
    libraries = &ownLibraries;
    daemonSystem = &ownSystem;
    files = &ownFiles;
    rules = &ownRules;
    build();
}

void Life::build() {
    kernel->sendsBind = !world->once(4);
    kernel->hasDriver = world->once(3);
    kernel->room = 1 + world->random(4);
    if (!kernel->sendsBind && world->once(3)) kernel->nodes = "/proc/bus/usb/";
    if (world->once(3)) kernel->occupied = static_cast<int>(world->random(100));
    libraries->hasTree = !world->once(4);
    spoilsSocket = world->once(8);
    if (world->once(2)) files->writeSettings(3, true);

    for (int i = 0; i < 4; ++i) {
        hubs.emplace_back();
        Hub& hub = hubs.back();
        hub.bus = i == 1 ? 2 : 1;
        hub.active = i < 2;
        hub.ports.resize(3);
        for (std::size_t port = 0; port < 3; ++port) {
            hub.ports[port].path = "/devices/pci0000:00/usb" + std::to_string(hub.bus) + "/" +
                                   std::to_string(hub.bus) + "-" + std::to_string(port + 1);
        }
    }
    makeUnits();
    // Each world has its own weather.
    for (int i = 0; i < 24; ++i) {
        weights.push_back(world->once(3) ? 0 : 1 + world->random(8));
    }
    weights[0] = 1 + world->random(20);
    weights[1] = 1 + world->random(20);
}

void Life::makeUnits() {
    good = &theGood;
    const auto add = [&](const char* name) -> Unit& {
        others.emplace_back();
        others.back().name = name;
        return others.back();
    };
    add("cable").text = "Cable";
    add("old chip").release = 0x0400;
    add("other functions").eepromWord = 0x003a;
    add("mute one").answersStrings = false;
    add("busy one").canBeOpened = false;
    Unit& mouse = add("mouse");
    mouse.vendor = 0x046d;
    mouse.product = 0xc077;
    add("other FTDI").product = 0x6015;
    if (world->once(3)) add("second TQ-5");
    if (!world->once(2)) return;
    for (std::size_t i = 2; i < 4; ++i) {
        Unit& hub = add("hub");
        hub.vendor = 0x05e3;
        hub.hub = &hubs[i];
    }
}

Life::Place Life::somewhere() {
    for (int tries = 0; tries < 30; ++tries) {
        const Place place = {&hubs[world->random(4)], world->random(3)};
        if (place.hub->active && !portOf(place).unit) return place;
    }
    return {nullptr, 0};
}

bool Life::isPlugged(const Unit& unit, Place& place) {
    for (Hub& hub : hubs) {
        for (std::size_t port = 0; port < hub.ports.size(); ++port) {
            place = {&hub, port};
            if (portOf(place).unit == &unit) return true;
        }
    }
    return false;
}

void Life::plug(Unit& unit) {
    Place place{};
    if (isPlugged(unit, place)) return;
    place = somewhere();
    if (!place.hub || (unit.hub && place.hub >= &hubs[2])) return;
    if (unit.hub) {
        for (std::size_t port = 0; port < unit.hub->ports.size(); ++port) {
            const std::string& path = portOf(place).path;
            unit.hub->bus = place.hub->bus;
            unit.hub->ports[port].path =
                path + path.substr(path.rfind('/')) + "." + std::to_string(port + 1);
        }
    }
    kernel->plug(*place.hub, portOf(place), &unit);
}

void Life::draw(Unit& unit) {
    Place place{};
    if (!isPlugged(unit, place)) return;
    if (place.hub->active) {
        kernel->unplug(*place.hub, portOf(place));
    } else {
        portOf(place).unit = nullptr;  // from a hub that is off
    }
}

// A loose contact.
void Life::bounce(Unit& unit) {
    Place place{};
    if (!isPlugged(unit, place) || !place.hub->active) return;
    kernel->unplug(*place.hub, portOf(place));
    world->after(world->between(5 * millisecond, 300 * millisecond), [this, &unit, place] {
        Place now{};
        if (isPlugged(unit, now) || portOf(place).unit || !place.hub->active) return;
        kernel->plug(*place.hub, portOf(place), &unit);
    });
}

void Life::faultOfUnits(std::uint32_t kind) {
    switch (kind) {
        case 0: {
            Unit& unit = anyUnit();
            Place place{};
            isPlugged(unit, place) ? draw(unit) : plug(unit);
            break;
        }
        case 1:
            bounce(anyUnit());
            break;
        case 2: {
            // A cable beside the unit, at nearly the same time.
            plug(*good);
            Unit& other = anyOther();
            world->after(world->between(0, 300 * millisecond), [this, &other] { plug(other); });
            break;
        }
        case 3:
            draw(anyOther());
            break;
        case 4:
            plug(anyOther());
            break;
        case 5:
            bounce(anyOther());
            break;
        case 6: {
            static const char* const actions[] = {"change", "change", "bind", "unbind", "add"};
            const char* action = actions[world->random(5)];
            world->note("        trigger %s", action);
            kernel->trigger(action);
            break;
        }
        case 7:
            good->refusesUntil = world->now + world->between(millisecond, 6 * second);
            break;
        case 8:
            good->stuckUntil = world->now + world->between(millisecond, 6 * second);
            break;
        default:
            break;
    }
}

void Life::faultOfFiles(std::uint32_t kind) {
    File& alarms = files->alarms;
    switch (kind) {
        case 0:
        case 1:
            files->writeAlarms(static_cast<int>(world->random(3)));
            break;
        case 2:
            files->removeAlarms();
            break;
        case 3: {
            // A writer locks it, empties it, and takes its time.
            if (alarms.locked) break;
            world->note("        alarms file locked");
            alarms.locked = true;
            alarms.text.clear();
            alarms.time = files->newTime();
            files->shown = files->written | 1;
            world->after(world->between(millisecond, 3 * second), [&alarms] {
                alarms.locked = false;
                files->writeAlarms(static_cast<int>(world->random(3)));
            });
            break;
        }
        case 4:
            files->writeAlarms(static_cast<int>(world->random(3)));
            alarms.readable = false;
            break;
        case 5:
            files->writeSettings(static_cast<int>(world->random(4)), false);
            break;
        case 6:
            if (files->overlayLevel >= 0)
                files->writeSettings(static_cast<int>(world->random(4)), true);
            break;
        default:
            break;
    }
}

void Life::faultOfCalls() {
    static const char* const calls[] = {"ftdi_usb_find_all",
                                        "ftdi_usb_get_strings",
                                        "ftdi_usb_open_dev",
                                        "ftdi_read_eeprom_location",
                                        "ftdi_set_bitmode",
                                        "ftdi_read_pins",
                                        "ftdi_disable_bitbang",
                                        "recv",
                                        "pselect",
                                        "stat",
                                        "access",
                                        "open",
                                        "read",
                                        "fopen",
                                        "flock",
                                        "fgets",
                                        "getdelim"};
    rules->spoils[calls[world->random(17)]] = 1 + static_cast<int>(world->random(2));
}

void Life::stop() {
    if (!running || daemonSystem->pendingSignal != 0) return;
    daemonSystem->pendingSignal = stopSignals[world->random(3)];
    world->note("        stop");
    world->after(stopTime, [this, run = starts] {
        if (running && starts == run) world->fail("a stop is not honoured");
    });
}

void Life::fault() {
    ++faults;
    std::uint32_t sum = 0;
    for (const std::uint32_t weight : weights) sum += weight;
    std::uint32_t choice = world->random(sum);
    std::uint32_t kind = 0;
    while (choice >= weights[kind]) choice -= weights[kind++];
    if (kind < 9) return faultOfUnits(kind);
    if (kind < 16) return faultOfFiles(kind - 9);
    switch (kind) {
        case 16:
        case 17:
            faultOfCalls();
            break;
        case 18:
            kernel->otherEvents(1 + world->random(8));
            break;
        case 19:
            // The process is stopped, and events are lost.
            world->stopDaemonUntil(world->now + world->between(0, 5 * second));
            kernel->otherEvents(8);
            break;
        case 20:
            world->stopDaemonUntil(world->now + world->between(0, 500 * millisecond));
            break;
        case 21:
            stop();
            break;
        case 22: {
            // Unheard.
            world->stopDaemonUntil(world->now + world->between(second, 5 * second));
            kernel->otherEvents(8);
            Place place{};
            isPlugged(*good, place) ? bounce(*good) : plug(*good);
            break;
        }
        default: {
            // Other events, for a while.
            for (int i = 0; i < 20; ++i) {
                world->after(i * 50 * millisecond, [] { kernel->otherEvents(8); });
            }
            break;
        }
    }
}

void Life::storm() {
    const std::uint32_t count = 1 + world->random(8);
    const Time length = world->between(0, world->once(2) ? 300 * millisecond : 6 * second);
    for (std::uint32_t i = 0; i < count; ++i) {
        world->after(world->between(0, length), [this] { fault(); });
    }
    world->after(length, [this] { repair(); });
}

// What was put in ends; what happened stays as it is.
void Life::repair() {
    world->note("        calm");
    rules->spoils.clear();
    good->refusesUntil = good->stuckUntil = 0;
    files->alarms.readable = true;
    world->after(showTime, [this] { check(); });
}

// Once neither the kernel nor a writer has been busy, nor the daemon begun, for long enough.
void Life::check() {
    const Time settled = world->now - showTime - second;
    if (kernel->lastChange > settled || !running || started > settled ||
        world->daemonRunsSince() > settled || files->alarms.locked || files->lastChange > settled) {
        world->after(500 * millisecond, [this] { check(); });
        return;
    }
    rules->calm();
    if (world->now > end) {
        ending = true;
        stop();
    } else {
        world->after(world->between(0, 30 * second), [this] { storm(); });
    }
}

void Life::run() {
    if (world->once(2)) plug(*good);
    world->after(world->between(0, 500 * millisecond), [this] { storm(); });
    while (!ending) startAndStop();
}

// The daemon's process: what is static in it is made anew.
void Life::startAndStop() {
    {
        const Outside outside;
        world->pass(world->between(0, 2 * second));
        if (spoilsSocket) {
            static const char* const calls[] = {"socket", "setsockopt", "bind"};
            rules->spoils[calls[world->random(3)]] = 1;
        }
        rules->started();
        started = world->now;
        running = true;
        ++starts;
        world->note("        start");
    }
    ownSystem.logMask = 0xff;
    ownSystem.blocked = false;
    ownSystem.pendingSignal = 0;
    ownSystem.handler = nullptr;
    DaemonState::running = DaemonState::stopRequested = 0;
    DaemonState::settings.~IniFile();
    new (&DaemonState::settings) IniFile(settingsPath, settingsOverlayPath);
    DaemonState::alarms.~IniFile();
    new (&DaemonState::alarms) IniFile(alarmsPath(DaemonState::settings));
    char name[] = "pinwatchd";
    char* arguments[] = {name, nullptr};
    if (daemonMain(1, arguments) != 0) world->fail("the exit status is not 0");
    SysLog::release();
    DaemonState::settings.clear();
    DaemonState::alarms.clear();

    const Outside outside;
    running = false;
    ownSystem.checkClosed();
    if (libraries->elements != 0) world->fail("a list is not freed");
    rules->ended();
}

}  // namespace

std::uint64_t live(std::uint64_t seed, int hours) {
    std::uint64_t faults = 0;
    {
        const Outside outside;
        Life* life = new Life(seed, hours);
        Outside::depth = 0;
        life->run();
        Outside::depth = 1;
        faults = life->faults;
        delete life;
        world = nullptr;
        kernel = nullptr;
        rules = nullptr;
        daemonSystem = nullptr;
    }
    return faults;
}
