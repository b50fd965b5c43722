#pragma once

#include <string>

#include "unit.h"

// The two outputs of a unit in a line's fixed words, e.g. "CBUS0 ● CBUS1 ○ pins=01". The lamps
// are coloured for a terminal when `colour` is set: high green, low (an alarm) red.
std::string lamps(const Unit& unit, bool colour);
