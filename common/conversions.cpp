#include "conversions.h"

#include <cerrno>
#include <climits>
#include <cstdlib>

bool toInt(const std::string& text, int& value, int base) {
    if (text.empty()) return false;

    char* end = nullptr;
    errno = 0;
    const long number = std::strtol(text.c_str(), &end, base);
    // Where long has 64 bits strtol itself lets numbers beyond 32 bits through.
    if (errno != 0 || number > INT_MAX || number < INT_MIN) return false;
    if (end != text.c_str() + text.size()) return false;
    value = static_cast<int>(number);
    return true;
}
