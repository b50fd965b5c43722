#pragma once

#include <ctime>
#include <map>
#include <string>
#include <string_view>

#include "kernel.h"

// A regular file that others write. The daemon polls its time, so each version has another one.
struct File {
    std::string text;
    std::time_t time = 0;  // 0: there is none
    bool locked = false;   // by a writer (flock(2))
};

struct Files {
    File alarms;
    File settings;
    int level = 0;        // the debug level of the settings
    Time lastChange = 0;  // of any of them
    unsigned versions = 0;
    // The masks that the pins may show: bit 0 for mask 0, and so on. While the file cannot be
    // read the last one stays, or, at a unit that is opened then, none.
    unsigned shown = 1;
    unsigned written = 1;  // that may have been read since the last calm

    void write(File& file, const std::string& text);
};

// The daemon's process: its signals, its socket, its file and its lists.
struct Process {
    int pendingSignal = 0;
    bool blocked = false;
    void (*handler)(int) = nullptr;
    bool socketOpen = false;
    bool fileOpen = false;
    int lists = 0;              // elements of libftdi's lists that are not freed
    void deliver(bool inWait);  // of the signal to the handler, unless blocked
};

// A call of the daemon. It takes so long, and a stop signal that comes meanwhile is handled before
// it returns.
struct Call {
    explicit Call(const char* name, Time least = microsecond, Time most = 20 * microsecond);
    ~Call();

    static int failure(int error);

    bool fails = false;  // as a fault that was put in
};

// What must hold. The stand-ins tell what happens, and Rules ends the process where that breaks
// a rule, at once or at the next calm.
struct Rules {
    // Faults put in: this call fails so often. It names all that were made.
    std::map<std::string_view, int> spoils;

    DevicePointer open;
    bool socket = true;  // the daemon has one
    bool stoppedInWait = false;
    int searches = 0;  // that have a cause
    bool countsLines = false;
    long events = 0, losses = 0, lines = 0, calls = 0;  // since the last calm
    Time countedSince = 0;

    void started();
    void ended();
    void received(const Event& event);
    void logged(const std::string& format, const std::string& line);

    // A listing begins; a device of it is turned away, or opened; the opened one is right.
    void listing();
    void refused(const DevicePointer& device, bool spoilt);
    void opened(const DevicePointer& device);
    void accepted();

    // Nothing has happened for some time: what must be so now.
    void calm();
};

extern Files files;
extern Process process;
extern Rules rules;

// Lives through so many virtual hours of one world: the daemon runs, faults come and go, and the
// rules are checked. Ends the process if one is broken.
void live(std::uint64_t seed, long hours);

// Prints what the kernel alone tells of some faults: each event of a device and its interface, with
// what is there of the device at that time, its attributes (a) and its node (n).
void printOrder();
