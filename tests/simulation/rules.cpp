#include <algorithm>

#include "alarmmask.h"
#include "life.h"
#include "logger.h"

Rules rules;

namespace {

constexpr int maxTries = 3;
constexpr int mostSearches = 8;

}  // namespace

void Rules::started() {
    socket = true;
    stoppedInWait = countsLines = false;
    searches = 1;
    for (const DevicePointer& device : kernel.devices) {
        device->heard = device->eventsLost = device->triggered = device->second = false;
        device->tries = device->spoilt = device->served = 0;
        device->atStart = true;
        device->drivenBefore = device->unit->driven;
    }
}

void Rules::ended() {
    if (process.socketOpen || process.fileOpen) world.fail("a file is left open");
    if (process.lists != 0) world.fail("a list is not freed");
    if (open) world.fail("a unit is left open");
    for (const DevicePointer& device : kernel.devices) {
        const Unit& unit = *device->unit;
        if (device->inSysfs && device->attached && unit.driven && unit.refusesUntil < world.now &&
            device->served > 0 && device->spoilt == 0 && !device->drivenBefore)
            world.fail("the outputs are left driven");
    }
}

void Rules::logged(const std::string& format, const std::string& line) {
    if (format == "device is not 'usb_device'" || format == "can't get device node path" ||
        format == "udev: FTDI USB device (%s) removed" || format == "USB device VID/PID: %s:%s") {
        ++lines;
    } else if (format == "FTDI device is not compatible") {
        ++searches;
    } else if (format == "USB device %s is still attached after '%s'") {
        const std::string node = line.substr(11, 7);
        if (!kernel.find(node)) world.fail("%s is said to be attached", node.c_str());
    }
}

void Rules::received(const Event& event) {
    ++events;
    if (!event.device) return;
    if (event.action == "add") {
        event.device->heard = true;
        --event.device->tries;  // what is reported is tried in any case
        if (event.device->unit->isFt232()) ++searches;
    } else if (event.action != "remove" && event.device == open) {
        ++searches;
    }
}

void Rules::listing() {
    if (stoppedInWait) world.fail("an opening begins after a stop");
    if (!socket) return;
    searches = std::min(searches, mostSearches) - 1;
    if (searches < 0) world.fail("a search without a cause");
}

void Rules::refused(const DevicePointer& device, bool spoilt) {
    ++searches;
    // It may be turned away for its own faults; a good one only by what was put in, or where the
    // daemon could not know that the kernel was still at it.
    if (spoilt || !device->heard) ++device->spoilt;
    if (++device->tries > maxTries)
        world.fail("%s is tried more than %d times", device->node().c_str(), maxTries);
}

void Rules::opened(const DevicePointer& device) {
    open = device;
    for (const DevicePointer& other : kernel.devices) {
        if (other != device && device->inSysfs) other->second = true;
    }
}

void Rules::accepted() {
    open->tries = 0;
    if (++open->served > 1 && !open->eventsLost && !open->triggered && open->spoilt == 0)
        world.fail("%s is opened again", open->node().c_str());
}

void Rules::calm() {
    if (open && !open->inSysfs) world.fail("%s is held open, and gone", open->node().c_str());
    // While it is looked at, a refused one is open too.
    if (open && open->served > 0 && !open->unit->isGood())
        world.fail("%s is held open", open->node().c_str());
    for (const DevicePointer& device : kernel.devices) {
        // Not those that the rules do not give to the daemon: a second good one, and one whose
        // reported opening failed. One that came unheard is looked for until it has been tried
        // three times.
        const Unit& unit = *device->unit;
        if (!unit.isGood() || !device->configured || device->second) continue;
        const int excuse = device->heard || device->atStart ? 1 : maxTries;
        if (device->spoilt >= excuse) continue;
        if (device != open) world.fail("%s is not open", device->node().c_str());
        unsigned shown = 0;
        for (unsigned mask = 0; mask < 3; ++mask) {
            if (unit.driven && unit.levels == pinValues[mask]) shown = 1U << mask;
        }
        if (device == open && (shown & files.shown) == 0 && !device->doubtful)
            world.fail("%s shows %u, the file %u (a bit for each mask)", device->node().c_str(),
                       shown, files.shown);
    }
    if (open && SysLog::instance()->debugLevel != files.level)
        world.fail("the debug level is not %d", files.level);
    if (countsLines && lines != events) world.fail("%ld lines of %ld datagrams", lines, events);
    const auto seconds = static_cast<long>((world.now - countedSince) / second);
    if (calls > 200 * (seconds + 5) + 100 * (events + losses))
        world.fail("it is busy: %ld calls in %ld s with %ld events", calls, seconds, events);
    events = losses = lines = calls = 0;
    countsLines = SysLog::instance()->debugLevel >= 2;
    countedSince = world.now;
    if (open) files.written = files.shown;
}
