#include "inifile.h"

#include <strings.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <utility>

#include "trim.h"

namespace {

constexpr int readBufferSize = 512;
constexpr const char* sectionSet = "[] \t\r";
constexpr const char* quoteSet = "\"";

// Appends every line of `file`, without its line feed, to `lines`; the text behind the last
// line feed, even when empty, is the last line. False on a read error.
bool readLines(std::FILE* file, std::deque<std::string>& lines) {
    std::string pending;
    char buffer[readBufferSize];
    for (;;) {
        std::memset(buffer, 0, sizeof buffer);
        if (!std::fgets(buffer, readBufferSize, file)) {
            if (!std::feof(file)) return false;
            lines.push_back(std::move(pending));
            return true;
        }
        const std::size_t length = std::strlen(buffer);
        if (length == 0) continue;
        if (buffer[length - 1] != '\n') {
            pending.append(buffer, length);
            continue;
        }
        pending.append(buffer, length - 1);
        lines.push_back(std::move(pending));
        pending.clear();
    }
}

}  // namespace

bool CaseInsensitiveLess::operator()(const std::string& a, const std::string& b) const {
    return strcasecmp(a.c_str(), b.c_str()) < 0;
}

std::time_t modificationTime(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) == 0) return static_cast<std::int32_t>(status.st_mtime);
    return errno == ENOENT ? 0 : -1;
}

IniFile::IniFile(const std::string& primary, const std::string& overlay)
    : primaryPath(primary), overlayPath(overlay) {
    reloadIfChanged();
}

bool IniFile::load(const std::string& path) {
    std::FILE* file = std::fopen(path.c_str(), "r");
    if (!file) return false;

    std::deque<std::string> lines;
    const bool locked = flock(fileno(file), LOCK_SH) == 0;
    const bool complete = readLines(file, lines);
    if (locked) flock(fileno(file), LOCK_UN);
    std::fclose(file);
    if (!complete) return false;

    std::string currentSection;
    for (std::string& line : lines)
        interpret(line, currentSection);
    return true;
}

void IniFile::interpret(std::string& line, std::string& currentSection) {
    trim(line);
    if (line.empty() || line.front() == ';' || line.front() == '#') return;

    if (line.front() == '[' && line.back() == ']') {
        trim(line, sectionSet);
        currentSection = line;
        return;
    }

    const std::size_t equals = line.find('=');
    if (equals == std::string::npos || equals == 0) return;
    std::string key = line.substr(0, equals);
    trimRight(key);
    std::string value = line.substr(equals + 1);
    trim(value);
    if (!value.empty() && value.front() == '"' && value.back() == '"') trim(value, quoteSet);
    sections[currentSection][key] = std::move(value);
}

void IniFile::clear() {
    sections.clear();
    overlayMtime = 0;
}

void IniFile::reloadIfChanged() {
    const std::time_t primaryTime = modificationTime(primaryPath);
    if (primaryTime != primaryMtime) {
        clear();
        if (load(primaryPath)) primaryMtime = primaryTime;
    }
    if (overlayPath.empty()) return;
    const std::time_t overlayTime = modificationTime(overlayPath);
    if (overlayTime != overlayMtime && load(overlayPath)) overlayMtime = overlayTime;
}

const std::string* IniFile::find(const std::string& section, const std::string& key) const {
    const auto sectionEntry = sections.find(section);
    if (sectionEntry == sections.end()) return nullptr;
    const auto keyEntry = sectionEntry->second.find(key);
    return keyEntry == sectionEntry->second.end() ? nullptr : &keyEntry->second;
}

const std::string& IniFile::value(const std::string& section, const std::string& key,
                                  const std::string& defaultValue) const {
    const std::string* stored = find(section, key);
    return stored ? *stored : defaultValue;
}

bool IniFile::hasKey(const std::string& section, const std::string& key) const {
    return find(section, key) != nullptr;
}

void IniFile::sectionNames(std::deque<std::string>& names) const {
    names.clear();
    for (const auto& section : sections)
        names.push_back(section.first);
}
