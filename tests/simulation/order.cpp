#include "order.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "files.h"
#include "libraries.h"
#include "rules.h"
#include "system.h"

// observer.cpp, under another name.
int observerMain(int, char* arguments[]);

void printOrder(bool hasDriver) {
    World ownWorld(1);
    world = &ownWorld;
    Kernel ownKernel;
    kernel = &ownKernel;
    System ownSystem;
    daemonSystem = &ownSystem;
    Files ownFiles;
    files = &ownFiles;
    Rules ownRules;
    rules = &ownRules;
    ownKernel.hasDriver = hasDriver;
    ownKernel.room = 100;
    Hub hub;
    hub.active = true;
    hub.ports.resize(1);
    Port& port = hub.ports[0];
    port.path = "/devices/usb1/1-1";
    Unit unit;

    Time start = 0;
    const auto record = [&](const char* name, const std::function<void()>& what) {
        world->after(start += 4 * second, [=] {
            std::printf("== %s\n", name);
            what();
        });
    };
    const auto plug = [&] { kernel->plug(hub, port, &unit); };
    const auto unplug = [&] { kernel->unplug(hub, port); };
    const auto bounce = [&] {
        unplug();
        world->after(50 * millisecond, plug);
    };
    record("arrival", plug);
    record("trigger", [&] { kernel->trigger("change"); });
    const auto open = [&] { kernel->detachDriver(port.device); };
    record("opening", open);
    record("closing", [] {});
    record("removal", unplug);
    record("arrival", plug);
    record("refused", [&] {
        open();
        kernel->reset(port.device);
    });
    record("closing", [] {});
    record("bounce", bounce);
    if (!hasDriver)
        record("loss", [&] {
            kernel->room = 2;
            world->stopDaemonUntil(world->now + 2 * second);
            bounce();
        });
    world->after(start + 4 * second, [] {
        std::fflush(stdout);
        _exit(0);
    });
    char name[] = "observer";
    char size[] = "1024";
    char* arguments[] = {name, size, nullptr};
    observerMain(2, arguments);
    std::abort();  // it does not return
}
