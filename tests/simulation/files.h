#pragma once

#include <ctime>
#include <map>
#include <string>

#include "world.h"

// A regular file that others write. The daemon polls its time, so each version has another one.
struct File {
    bool exists = false;
    std::string text;
    std::time_t time = 0;
    bool readable = true;
    bool locked = false;  // by a writer (flock(2))
};

// The alarms file and the two settings files.
struct Files {
    Files();

    // Another version of the alarms file, which shows this mask, or none at all.
    void writeAlarms(int mask);
    void removeAlarms();
    void writeSettings(int level, bool overlay);

    File* find(const std::string& path);
    std::time_t newTime();

    std::map<std::string, File> all;
    File& alarms;

    // The masks that the pins may show: bit 0 for mask 0, and so on. While the file cannot be
    // read the last one stays, or, at a unit that is opened then, none.
    unsigned shown = 1;
    Time lastChange = 0;
    unsigned written = 1;  // masks that may have been read since the last calm
    int primaryLevel = 3;
    int overlayLevel = -1;  // without the overlay

private:
    unsigned versions = 0;
};

extern Files* files;
