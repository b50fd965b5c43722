#pragma once

#include <cstdint>

// Lives through so many virtual hours of one world: the daemon runs, faults come and go, and what
// must hold is checked. Ends the process if it does not. Returns the number of faults.
std::uint64_t live(std::uint64_t seed, int hours);
