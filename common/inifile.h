#pragma once

#include <algorithm>
#include <ctime>
#include <deque>
#include <map>
#include <string>

// Orders names without regard to ASCII letter case, as strcasecmp does.
struct CaseInsensitiveLess {
    bool operator()(const std::string& a, const std::string& b) const;
};

// One section: key name to value text. A key keeps the letter case of its first assignment.
using IniSection = std::map<std::string, std::string, CaseInsensitiveLess>;

// st_mtime of `path` in whole seconds, as a 32-bit signed value on every ABI; 0 when the path
// does not exist, -1 when it cannot be examined.
std::time_t modificationTime(const std::string& path);

// What a line of INI text is; all that fits no rule, comments included, is nothing.
enum class IniLine { nothing, header, assignment };

// Reads one line, without its line feed, by the text format's rules (see IniFile). Leaves the
// section's name or the key in `line`, and an assignment's value in `value`.
IniLine readIniLine(std::string& line, std::string& value);

// Calls `use(section, key, value)` for each assignment in INI text, in the order in which IniFile
// makes them.
template <class Use>
void forEachAssignment(const std::string& text, Use use) {
    std::string section;
    std::string line;
    std::string value;
    std::size_t begin = 0;
    while (begin < text.size()) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        line.assign(text, begin, end - begin);
        const IniLine kind = readIniLine(line, value);
        if (kind == IniLine::header) section = line;
        if (kind == IniLine::assignment) use(section, line, value);
        begin = end + 1;
    }
}

// An INI document bound to a primary file and an optional overlay file whose assignments are
// laid over the primary's. Files are told to have changed by their modification time in whole
// seconds, so a second rewrite within one second of a load goes unseen until the time changes.
// Nothing here logs: a file that cannot be read is tried again at the next poll.
//
// The text format: one assignment `key = value` a line, split at the first "=". A line that
// starts with "[" and ends with "]" selects the section named between the brackets; what
// stands before the first one goes to the section with the empty name. Lines that start with
// ";" or "#", and lines that fit no rule, are skipped. White space around names and values is
// dropped, and so are double quotes around a value that has them at both ends. Sections and
// keys that occur again are merged, the later value wins.
class IniFile {
public:
    using Sections = std::map<std::string, IniSection, CaseInsensitiveLess>;

    // Binds the document to its files (an empty overlay path: no overlay) and loads them.
    explicit IniFile(const std::string& primaryPath, const std::string& overlayPath = "");
    virtual ~IniFile() = default;

    // Merges the file at `path` into the document, under a shared flock: waits while another
    // process holds an exclusive one. False, with the document unchanged, when the file cannot
    // be opened or read to its end, or does not fit into memory with a list of its section names
    // and 256 kB to spare; odd lines are no failure.
    bool load(const std::string& path);

    // Empties the document; the overlay will be merged again by the next reloadIfChanged.
    void clear();

    // Polls both files. A changed primary rebuilds the document, a changed overlay is merged
    // over it; a stored time moves only when its file was loaded.
    void reloadIfChanged();

    // The value of a key, or `defaultValue` itself where section or key is absent. The
    // reference holds until the next load, clear or reloadIfChanged.
    const std::string& value(const std::string& section, const std::string& key,
                             const std::string& defaultValue) const;

    // True when the section holds the key, with whatever value, the empty one included.
    bool hasKey(const std::string& section, const std::string& key) const;

    // Replaces `names` by the names of all sections, in the document's order.
    void sectionNames(std::deque<std::string>& names) const;

    // Modification times at the last successful load; 0 until then.
    std::time_t primaryMtime = 0;
    std::time_t overlayMtime = 0;

private:
    const std::string* find(const std::string& section, const std::string& key) const;

    Sections sections;
    std::string primaryPath;
    std::string overlayPath;
};
