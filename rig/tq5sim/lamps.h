#pragma once

#include <string>

#include "unit.h"

// The two outputs of a unit in a line's fixed words, e.g. "CBUS0 ● CBUS1 ○ pins=01".
std::string lamps(const Unit& unit);
