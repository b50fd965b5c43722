#include "trim.h"

namespace {

constexpr const char* defaultSet = " \t\n\r\v\b";

}  // namespace

void trimLeft(std::string& text, const char* set) {
    text.erase(0, text.find_first_not_of(set ? set : defaultSet));
}

void trimRight(std::string& text, const char* set) {
    text.erase(text.find_last_not_of(set ? set : defaultSet) + 1);
}

void trim(std::string& text, const char* set) {
    trimLeft(text, set);
    trimRight(text, set);
}
