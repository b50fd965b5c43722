#include "inifile.h"

#include <strings.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <utility>

#include "trim.h"

namespace {

constexpr int readBufferSize = 512;
constexpr std::size_t reserveSize = std::size_t{256} * 1024;
constexpr const char* sectionSet = "[] \t\r";
constexpr const char* quoteSet = "\"";

struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

// Appends the text of the file at `path` to `text`, under a shared lock: a line as it is up to
// its first NUL; with a NUL in it the line feed is lost too, and the next line continues it.
// One text: it takes the file's size, where a list of many short lines takes a multiple. False
// if the file cannot be opened or read.
bool readFile(const std::string& path, std::string& text) {
    const std::unique_ptr<std::FILE, Close> file(std::fopen(path.c_str(), "r"));
    if (!file) return false;
    const bool locked = flock(fileno(file.get()), LOCK_SH) == 0;
    char buffer[readBufferSize];
    text.reserve(sizeof buffer);
    for (;;) {
        std::memset(buffer, 0, sizeof buffer);
        if (!std::fgets(buffer, readBufferSize, file.get())) break;
        text += buffer;
    }
    const bool complete = std::feof(file.get()) != 0;
    if (locked) flock(fileno(file.get()), LOCK_UN);
    return complete;
}

void* reserve = nullptr;  // one file is loaded at a time

[[noreturn]] void giveReserveBack() {
    std::free(reserve);
    reserve = nullptr;
    throw std::bad_alloc();
}

// Room in memory that is held while a file is loaded. An allocation that fails gives it back, for
// throwing takes memory too: the C++ library's own reserve is made at its start, which in a static
// link comes after the documents. Where all was loaded, it is left for the rest of the program.
class Reserve {
public:
    Reserve() : handlerBefore(std::set_new_handler(giveReserveBack)) {
        reserve = std::malloc(reserveSize);
    }
    ~Reserve() {
        std::free(reserve);
        std::set_new_handler(handlerBefore);
    }
    Reserve(const Reserve&) = delete;
    Reserve& operator=(const Reserve&) = delete;

private:
    std::new_handler handlerBefore;
};

void listNames(const IniFile::Sections& sections, std::deque<std::string>& names) {
    names.clear();
    for (const auto& section : sections) names.push_back(section.first);
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

IniLine readIniLine(std::string& line, std::string& value) {
    trim(line);
    if (line.empty() || line.front() == ';' || line.front() == '#') return IniLine::nothing;

    if (line.front() == '[' && line.back() == ']') {
        trim(line, sectionSet);
        return IniLine::header;
    }

    const std::size_t equals = line.find('=');
    if (equals == std::string::npos || equals == 0) return IniLine::nothing;
    value = line.substr(equals + 1);
    trim(value);
    if (!value.empty() && value.front() == '"' && value.back() == '"') trim(value, quoteSet);
    line.resize(equals);  // the key is left
    trimRight(line);
    return IniLine::assignment;
}

IniFile::IniFile(const std::string& primary, const std::string& overlay)
    : primaryPath(primary), overlayPath(overlay) {
    reloadIfChanged();
}

bool IniFile::load(const std::string& path) {
    const Reserve held;
    if (!reserve) return false;
    try {
        std::string text;
        if (!readFile(path, text)) return false;
        Sections merged = sections;
        forEachAssignment(
            text, [&](const std::string& section, const std::string& key, std::string& value) {
                merged[section][key] = std::move(value);
            });
        // Who lists the names later must find room for them.
        std::deque<std::string> names;
        listNames(merged, names);
        sections.swap(merged);
        return true;
    } catch (const std::exception&) {
        return false;  // no memory for it: a file that cannot be read
    }
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

void IniFile::sectionNames(std::deque<std::string>& names) const { listNames(sections, names); }
