#pragma once

#include <string>

// Remove from `text`, in place, the leading (trimLeft), trailing (trimRight) or both kinds of
// characters (trim) that occur in the NUL-terminated `set`; a null set means the default one:
// space, tab, line feed, carriage return, vertical tab and backspace.
void trimLeft(std::string& text, const char* set = nullptr);
void trimRight(std::string& text, const char* set = nullptr);
void trim(std::string& text, const char* set = nullptr);
