#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "unit.h"

// One line of standard input.
struct Command {
    enum class Kind { none, plug, unplug, stall, pins, quit };

    Kind kind = Kind::none;              // none: an empty line
    unsigned unit = 0;                   // for plug, unplug, stall and pins
    std::optional<UnitOptions> options;  // for plug; without one, the unit that was there last
    std::optional<std::uint8_t> byte;    // for stall and pins; without a value: none, auto
};

// Reads a line without its line feed. Words are separated by blanks; a blank between double
// quotes belongs to its word, and the quotes themselves to none. False with the reason in
// `error` when the line is not a whole command; then `command` is left alone.
bool parseCommand(const std::string& line, Command& command, std::string& error);
