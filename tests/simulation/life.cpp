#include "life.h"

#include <unistd.h>

#include <cstdio>
#include <iterator>
#include <new>
#include <vector>

#include "daemonstate.h"
#include "logger.h"
#include "settings.h"
#include "uevent.h"

// src/main.cpp, under another name.
int daemonMain(int, char* arguments[]);

namespace {

// Waits for so long until a unit that was attached, or a file that was written, must show.
constexpr Time showTime = 3 * second;
constexpr Time stopTime = 15 * second;

constexpr const char* tq5 = "TQ-5 alarm unit";
Unit units[] = {{"TQ-5"},
                {"cable", 0x0403, 0x6001, 0x0600, "Cable"},
                {"old chip", 0x0403, 0x6001, 0x0400},
                {"other functions", 0x0403, 0x6001, 0x0600, tq5, 0x003a},
                {"mute one", 0x0403, 0x6001, 0x0600, tq5, 0x00aa, false},
                {"hungry one", 0x0403, 0x6001, 0x0600, tq5, 0x00aa, true, false},
                {"nameless one", 0, 0},
                {"second TQ-5"}};
Unit& good = units[0];
std::uint32_t unitCount = 7;  // and eight in some worlds

Time started = 0;  // of the daemon
bool running = false;
bool ending = false;

Time soon() { return world.now + world.between(millisecond, 6 * second); }
Unit& anyOther() { return units[1 + world.random(unitCount - 1)]; }
Unit& anyUnit() { return world.once(2) ? anyOther() : good; }

Port* portOf(const Unit& unit) {
    for (Hub& hub : kernel.hubs) {
        for (Port& port : hub.ports) {
            if (port.unit == &unit) return &port;
        }
    }
    return nullptr;
}

void plug(Unit& unit) {
    Port& port = kernel.hubs[world.random(3)].ports[world.random(3)];
    if (!portOf(unit)) port.unit ? plug(unit) : kernel.connect(port, &unit);
}

void plugOrDraw(Unit& unit) {
    Port* port = portOf(unit);
    port ? kernel.connect(*port, nullptr) : plug(unit);
}

void bounce(Unit& unit) {
    Port* port = portOf(unit);
    if (!port) return plug(unit);
    kernel.connect(*port, nullptr);
    world.after(world.between(5 * millisecond, 300 * millisecond), [=, &unit] {
        if (!portOf(unit) && !port->unit) kernel.connect(*port, &unit);
    });
}

// SIGSTOP, and more events than the socket holds.
void stopProcess() {
    world.stoppedUntil = world.now + world.between(0, 5 * second);
    kernel.otherEvents(world.random(9));
}

void writeAlarms() {
    static const char* const texts[] = {"[ALARM1]\nother=ALARM2\n", "[a]\nAlarm1=1\n[b]\nALARM3=\n",
                                        "[a]\nALARM1=1\n[b]\n  alarm2 = 0\n;\n[x"};
    const std::uint32_t mask = world.random(3);
    files.write(files.alarms, texts[mask]);
    files.shown = 1U << mask;
    files.written |= files.shown;
}

void writeSettings() {
    files.level = static_cast<int>(world.random(4));
    files.write(files.settings, "[cu/params/3]\nLogDebug=" + std::to_string(files.level) + "\n");
}

// A writer locks the alarms file, empties it, and takes its time.
void lockAlarms() {
    if (files.alarms.locked) return;
    files.write(files.alarms, "");
    files.alarms.locked = true;
    files.shown = files.written | 1;
    world.after(world.between(millisecond, 3 * second), [] {
        files.alarms.locked = false;
        writeAlarms();
    });
}

void stopDaemon() {
    if (!running || process.pendingSignal != 0) return;
    process.pendingSignal = stopSignals[world.random(3)];
    world.after(stopTime, [run = started] {
        if (running && started == run) world.fail("a stop is not honoured");
    });
}

void failCall() {
    const auto call = std::next(rules.spoils.begin(),
                                world.random(static_cast<std::uint32_t>(rules.spoils.size())));
    if (call != rules.spoils.end()) call->second = 1 + static_cast<int>(world.random(2));
}

const struct Fault {
    const char* name;
    std::uint32_t weight;
    void (*happen)();
} faults[] = {
    {"plug or draw", 3, [] { plugOrDraw(anyUnit()); }},
    {"loose contact", 3, [] { bounce(anyUnit()); }},
    {"another beside the unit", 1,
     [] {
         plug(good);
         world.after(world.between(0, 300 * millisecond), [] { plugOrDraw(anyOther()); });
     }},
    {"trigger", 1,
     [] {
         kernel.trigger(world.once(3) ? "add" : world.once(3) ? "unbind" : "change");
     }},
    {"requests are refused", 1, [] { good.refusesUntil = soon(); }},
    {"pins read otherwise", 1, [] { good.stuckUntil = soon(); }},
    {"alarms written", 2, writeAlarms},
    {"alarms file removed", 1,
     [] {
         files.write(files.alarms, "");
         files.alarms.time = 0;
         files.shown = files.written | 1;
     }},
    {"alarms file locked", 1, lockAlarms},
    {"settings written", 1, writeSettings},
    {"a call fails", 2, failCall},
    {"other events", 1, [] { kernel.otherEvents(1 + world.random(8)); }},
    {"process stopped", 2, stopProcess},
    {"the unit comes unheard", 1,
     [] {
         stopProcess();
         bounce(good);
     }},
    {"stop", 1, stopDaemon},
};

// Each world has its own weather: the faults that are drawn from, each as often as it is likely.
std::vector<const Fault*> weather = {faults};

void buildWorld() {
    kernel.sendsBind = !world.once(4);
    kernel.room = 1 + world.random(4);
    kernel.showsTree = !world.once(4);
    if (!kernel.sendsBind && world.once(3)) kernel.nodes = "/proc/bus/usb/";
    if (world.once(3)) ++unitCount;
    for (const Fault& fault : faults) {
        if (!world.once(3)) weather.insert(weather.end(), fault.weight * world.random(8), &fault);
    }
    writeSettings();
    writeAlarms();
}

void makeFault() {
    const Fault& fault = *weather[world.random(static_cast<std::uint32_t>(weather.size()))];
    world.note("        %s", fault.name);
    fault.happen();
}

void storm();

// Once neither the kernel nor a writer has been busy, nor the daemon begun, for long enough.
void check() {
    const Time settled = world.now - showTime - second;
    if (kernel.lastChange > settled || !running || started > settled ||
        world.stoppedUntil > settled || files.alarms.locked || files.lastChange > settled) {
        world.after(500 * millisecond, check);
        return;
    }
    rules.calm();
    ending ? stopDaemon() : world.after(world.between(0, 30 * second), storm);
}

// What was put in ends; what happened stays as it is.
void repair() {
    world.note("        calm");
    for (auto& entry : rules.spoils) entry.second = 0;
    good.refusesUntil = good.stuckUntil = 0;
    world.after(showTime, check);
}

void storm() {
    const Time length = world.between(0, world.once(2) ? 300 * millisecond : 6 * second);
    for (std::uint32_t count = 1 + world.random(8); count > 0; --count) {
        world.after(world.between(0, length), makeFault);
    }
    world.after(length, repair);
}

// The daemon's process: what is static in it is made anew.
void runDaemon() {
    process = {};
    rules.started();
    started = world.now;
    running = true;
    DaemonState::running = DaemonState::stopRequested = 0;
    DaemonState::settings.~IniFile();
    new (&DaemonState::settings) IniFile(settingsPath, settingsOverlayPath);
    DaemonState::alarms.~IniFile();
    new (&DaemonState::alarms) IniFile(alarmsPath(DaemonState::settings));
    char name[] = "pinwatchd";
    char* arguments[] = {name, nullptr};
    if (daemonMain(1, arguments) != 0) world.fail("the exit status is not 0");
    if (!DaemonState::stopRequested) world.fail("it ends of itself");
    SysLog::release();
    running = false;
    rules.ended();
}

}  // namespace

// Not in order: any other time is another version.
void Files::write(File& file, const std::string& text) {
    file.text = text;
    file.time = 1'000'000'000 + static_cast<std::time_t>(++versions * 7919U % 10'000'000U);
    lastChange = world.now;
}

void live(std::uint64_t seed, long hours) {
    worldBegan = true;
    world.seed = world.state = seed;
    buildWorld();
    if (world.once(2)) plug(good);
    world.after(world.between(0, 500 * millisecond), storm);
    world.after(hours * 3600 * second, [] { ending = true; });
    while (!ending) {
        world.pass(world.between(0, 2 * second));
        world.note("        start");
        runDaemon();
    }
}

void printOrder() {
    worldBegan = kernel.isBound = true;
    kernel.room = 100;
    Port& port = kernel.hubs[1].ports[0];
    std::string path = port.path;
    const auto record = [&](const char* name, const std::function<void()>& happens) {
        std::printf("== %s\n", name);
        happens();
        for (;;) {
            world.wait([] { return kernel.isReadable(); }, 2 * second);
            if (!kernel.isReadable()) return;
            char buffer[2048];
            const int length = kernel.receive(buffer, sizeof buffer);
            if (length < 0) {
                std::puts("events lost");
                continue;
            }
            const Uevent event = parseUevent(buffer, static_cast<std::size_t>(length));
            if (event.sysfsDirectory.find(path) == std::string::npos) continue;
            const bool attributes = access((event.sysfsDirectory + "/idVendor").c_str(), 0) == 0;
            std::printf("%s %s%s%s\n", event.action->c_str(),
                        event.usbDevice ? "device" : "interface", attributes ? " a" : "",
                        kernel.find(event.nodePath()) ? " n" : "");
        }
    };
    const auto plugIn = [&] { kernel.connect(port, &good); };
    const auto draw = [&] { kernel.connect(port, nullptr); };
    const auto trigger = [] { kernel.trigger("change"); };
    record("arrival", plugIn);
    record("trigger", trigger);
    record("refused", [&] { kernel.reset(port.device); });
    record("bounce", [&] {
        draw();
        world.after(50 * millisecond, plugIn);
    });
    record("removal", draw);
    path = kernel.hubs[2].device->port->path;
    kernel.room = 1;
    record("loss", trigger);
}
