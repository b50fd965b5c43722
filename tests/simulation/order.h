#pragma once

// Prints what an observer of the uevents sees of some faults, and ends the process.
[[noreturn]] void printOrder(bool hasDriver);
