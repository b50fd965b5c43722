#include "lamps.h"

namespace {

std::string lamp(Level level, bool colour) {
    switch (level) {
        case Level::high:
            return colour ? "\033[32m●\033[0m" : "●";
        case Level::low:
            return colour ? "\033[31m○\033[0m" : "○";
        case Level::floating:
            break;
    }
    return colour ? "\033[2m-\033[0m" : "-";
}

}  // namespace

std::string lamps(const Unit& unit, bool colour) {
    const Level cbus0 = unit.cbus(0);
    const Level cbus1 = unit.cbus(1);
    std::string pins = "floating";
    if (cbus0 != Level::floating && cbus1 != Level::floating) {
        const int value = (cbus0 == Level::high ? 1 : 0) + (cbus1 == Level::high ? 2 : 0);
        pins = "0" + std::to_string(value);
    }
    return "CBUS0 " + lamp(cbus0, colour) + " CBUS1 " + lamp(cbus1, colour) + " pins=" + pins;
}
