// Loads any bytes as an INI file and compares the document with what a second reading of the
// format's rules, written apart from the reader's, makes of them.

#include "inifile.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <string>
#include <string_view>

#include "alarmmask.h"

using Sections = decltype(IniFile::sections);

namespace {

void check(bool holds) {
    if (!holds) __builtin_trap();
}

std::string trimmed(std::string_view text, std::string_view set) {
    const auto isKept = [set](char c) { return set.find(c) == std::string_view::npos; };
    const auto begin = std::find_if(text.begin(), text.end(), isKept);
    const auto end = std::find_if(text.rbegin(), text.rend(), isKept).base();
    return begin < end ? std::string(begin, end) : "";
}

// The reader takes pieces of at most 511 bytes, the last of a line ends with its line feed; of
// each piece what stands before a NUL counts, and lines go on where the line feed does not.
std::string readPieces(std::string_view file) {
    constexpr std::size_t pieceSize = 511;
    std::string text;
    while (!file.empty()) {
        const std::string_view piece = file.substr(0, std::min(file.find('\n'), pieceSize - 1) + 1);
        text += piece.substr(0, piece.find('\0'));
        file.remove_prefix(piece.size());
    }
    return text;
}

Sections readByTheRules(std::string_view file) {
    constexpr std::string_view blanks = " \t\n\r\v\b";
    Sections sections;
    std::string section;
    const std::string text = readPieces(file);
    for (std::size_t begin = 0, end; begin < text.size(); begin = end + 1) {
        end = std::min(text.find('\n', begin), text.size());
        const std::string line = trimmed({text.data() + begin, end - begin}, blanks);
        if (line.empty() || line[0] == ';' || line[0] == '#') continue;
        if (line[0] == '[' && line.back() == ']') {
            section = trimmed(line, "[] \t\r");
            continue;
        }
        const std::size_t equals = line.find('=');
        if (equals == 0 || equals == std::string::npos) continue;
        std::string value = trimmed(line.substr(equals + 1), blanks);
        if (!value.empty() && value[0] == '"' && value.back() == '"') value = trimmed(value, "\"");
        sections[section][trimmed(line.substr(0, equals), blanks)] = value;
    }
    return sections;
}

std::string upperCase(std::string text) {
    for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const int fd = memfd_create("document", 0);
    static const std::string path = "/proc/self/fd/" + std::to_string(fd);
    check(ftruncate(fd, 0) == 0);
    check(pwrite(fd, data, size, 0) == static_cast<ssize_t>(size));

    IniFile document("");
    check(document.load(path));
    const Sections expected = readByTheRules({reinterpret_cast<const char*>(data), size});
    check(document.sections == expected);

    // The same file merged over itself changes nothing.
    check(document.load(path));
    check(document.sections == expected);

    AlarmMask mask = 0;
    for (const auto& [name, keys] : expected) {
        for (const auto& [key, value] : keys) {
            const std::string upperKey = upperCase(key);
            check(document.value(upperCase(name), upperKey, "absent") == value);
            if (upperKey == "ALARM2") mask = 2;
            if (upperKey == "ALARM1" && mask == 0) mask = 1;
        }
    }
    check(evaluateAlarmMask(document) == mask);
    return 0;
}
