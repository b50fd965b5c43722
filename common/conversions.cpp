#include "conversions.h"

#include <cerrno>
#include <climits>
#include <cstdlib>

bool toInt(const std::string& text, int& value, int base) {
    if (text.empty()) return false;

    char* end = nullptr;
    errno = 0;
    const long number = std::strtol(text.c_str(), &end, base);
    if (errno == ERANGE && (number == LONG_MAX || number == LONG_MIN)) return false;
    if (errno != 0 && number == 0) return false;
    // Where long has 64 bits strtol itself lets numbers beyond 32 bits through.
    if (number > INT_MAX || number < INT_MIN) return false;
    if (end != text.c_str() + text.size()) return false;

    value = static_cast<int>(number);
    return true;
}
