#pragma once

#include <map>
#include <string>

#include "kernel.h"

// What must hold. The stand-ins tell what happens, and Rules ends the process where that breaks
// a rule, at once or at the next calm.
class Rules {
public:
    // Faults put in: this call fails so often.
    std::map<std::string, int> spoils;
    bool spoil(const std::string& call);

    // The daemon's process began, or ended in order.
    void started();
    void ended();
    void stopDelivered(bool inWait) { stoppedInWait = stoppedInWait || inWait; }
    void socketFailed() { socket = false; }

    void attached(const DevicePointer& device);
    void lost(const Event& event);
    void reportedLoss();
    void received(const Event& event);
    void nodeMissed() { searches += 2; }

    // Of the libraries: a listing begins; it fails; a device of it is turned away, or opened; its
    // pins are set; it is closed.
    void listing();
    void listingFailed();
    void refused(const DevicePointer& device, bool spoilt);
    void opened(const DevicePointer& device);
    void pinsSet();
    void closed() { open = nullptr; }

    // Of the loop: a call of the system; a cycle; a wait; a message; the log's level is changed.
    void called();
    void cycle() { ++cycles; }
    void waited() { ++waits; }
    void logged(const std::string& format, const std::string& line);
    void levelChanged() { countsLines = false; }

    // Nothing has happened for some time: what must be so now.
    void calm();

    DevicePointer open;

private:
    // The units that the rules do not give to the daemon.
    static bool isExcused(const Device& device);
    void checkUnits() const;
    void beginCount();

    bool socket = true;
    bool stoppedInWait = false;
    bool pinsOfThisOpening = false;
    int searches = 0;      // that have a cause
    int chipRefusals = 0;  // that may come, of devices with another chip
    bool countsLines = false;
    long events = 0, losses = 0, lines = 0, cycles = 0, waits = 0,
         listings = 0;  // since the last calm
    Time countedSince = 0;
    Time callsSecond = 0;
    long calls = 0;       // in this second
    long mostBlocks = 0;  // of the first hour
    long blocksAtEnd = -1;
};

extern Rules* rules;
