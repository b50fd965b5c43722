#include "trim.h"

namespace {

constexpr const char* defaultSet = " \t\n\r\v\b";

bool isIn(char c, const char* set) {
    while (*set != '\0' && *set != c) ++set;
    return *set != '\0';
}

}  // namespace

void trimLeft(std::string& text, const char* set) {
    if (!set) set = defaultSet;
    std::size_t begin = 0;
    while (begin < text.size() && isIn(text[begin], set)) ++begin;
    text.erase(0, begin);
}

void trimRight(std::string& text, const char* set) {
    if (!set) set = defaultSet;
    std::size_t end = text.size();
    while (end > 0 && isIn(text[end - 1], set)) --end;
    text.erase(end);
}

void trim(std::string& text, const char* set) {
    trimLeft(text, set);
    if (!text.empty()) trimRight(text, set);
}
