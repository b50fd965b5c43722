#include "lamps.h"

namespace {

const char* lamp(Level level) {
    switch (level) {
        case Level::high:
            return "●";
        case Level::low:
            return "○";
        case Level::floating:
            break;
    }
    return "-";
}

}  // namespace

std::string lamps(const Unit& unit) {
    const Level cbus0 = unit.cbus(0);
    const Level cbus1 = unit.cbus(1);
    std::string pins = "floating";
    if (cbus0 != Level::floating && cbus1 != Level::floating) {
        const int value = (cbus0 == Level::high ? 1 : 0) + (cbus1 == Level::high ? 2 : 0);
        pins = "0" + std::to_string(value);
    }
    return std::string("CBUS0 ") + lamp(cbus0) + " CBUS1 " + lamp(cbus1) + " pins=" + pins;
}
