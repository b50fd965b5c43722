#pragma once

#include <string>

// Converts the whole of `text` to a 32-bit signed integer, as strtol reads it in `base`
// (2 to 36, or 0 for a base told by the text's prefix): leading white space and a sign are
// accepted, anything behind the digits is not. False, with `value` untouched, when the text
// is empty, is not a number as a whole, or does not fit.
bool toInt(const std::string& text, int& value, int base);
