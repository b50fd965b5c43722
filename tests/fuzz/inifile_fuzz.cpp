// Loads any bytes as an INI file: what the document then holds keeps the format's promises, and
// written out as an INI file it gives the same document again.

#include "inifile.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>

namespace {

void check(bool holds) {
    if (!holds) __builtin_trap();
}

void checkLoads(IniFile& document, const std::string& text) {
    static const int fd = memfd_create("document", 0);
    check(ftruncate(fd, 0) == 0);
    check(pwrite(fd, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
    check(document.load("/proc/self/fd/" + std::to_string(fd)));
}

bool isTrimmed(const std::string& text, const char* set) {
    return text.empty() || (std::string(set).find(text.front()) == std::string::npos &&
                            std::string(set).find(text.back()) == std::string::npos);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const char* blanks = " \t\n\r\v\b";
    IniFile document("");
    checkLoads(document, {reinterpret_cast<const char*>(data), size});

    std::string text;
    for (const auto& [name, keys] : document.sections) {
        check(isTrimmed(name, "[] \t\r") && !keys.empty());
        if (!name.empty()) text.append("[").append(name).append("]\n");
        for (const auto& [key, value] : keys) {
            check(!key.empty() && isTrimmed(key, blanks));
            check(key.find('=') == std::string::npos && key[0] != ';' && key[0] != '#');
            for (const std::string* part : {&name, &key, &value})
                check(part->find('\n') == std::string::npos &&
                      std::strlen(part->c_str()) == part->size());
            check(document.value(name, key, "absent") == value);
            // Quotes keep blanks; where one stands at an end there are none to keep.
            const char* quote = isTrimmed(value, "\"") ? "\"" : "";
            check(*quote || isTrimmed(value, blanks));
            text.append(key).append("=").append(quote).append(value).append(quote).append("\n");
        }
    }

    IniFile again("");
    checkLoads(again, text);
    check(again.sections == document.sections);
    return 0;
}
