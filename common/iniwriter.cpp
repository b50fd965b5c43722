#include "iniwriter.h"

#include <strings.h>

#include <algorithm>
#include <utility>

namespace {

bool sameName(const std::string& a, const std::string& b) {
    return strcasecmp(a.c_str(), b.c_str()) == 0;
}

std::string endOf(const std::string& line) {
    return line.size() > 1 && line[line.size() - 2] == '\r' ? "\r\n" : "\n";
}

// Whether the reader takes the line for this.
bool readsAs(std::string line, IniLine kind, const std::string& name, const std::string& value) {
    std::string valueRead;
    return line.find('\n') == std::string::npos && readIniLine(line, valueRead) == kind &&
           line == name && valueRead == value;
}

}  // namespace

std::string iniHeader(const std::string& section) {
    const std::string header = "[" + section + "]";
    return readsAs(header, IniLine::header, section, "") ? header : "";
}

std::string iniAssignment(const std::string& key, const std::string& value) {
    for (const char* quote : {"", "\""}) {
        std::string assignment = key;
        assignment.append(" = ").append(quote).append(value).append(quote);
        if (readsAs(assignment, IniLine::assignment, key, value)) return assignment;
    }
    return "";
}

IniText::IniText(std::string text) {
    if (!text.empty() && text.back() != '\n') text += '\n';
    std::string section;
    std::size_t begin = 0;
    while (begin < text.size()) {
        const std::size_t end = text.find('\n', begin) + 1;
        lines.push_back(read(text.substr(begin, end - begin), section));
        section = lines.back().section;
        begin = end;
    }
}

IniText::Line IniText::read(const std::string& raw, const std::string& section) {
    Line line = {raw, IniLine::nothing, section, raw, ""};
    line.kind = readIniLine(line.key, line.value);
    if (line.kind == IniLine::header) line.section = line.key;
    return line;
}

std::string IniText::text() const {
    std::string result;
    for (const Line& line : lines) result += line.raw;
    return result;
}

std::size_t IniText::find(const std::string& section, const std::string& key) const {
    std::size_t found = lines.size();
    for (std::size_t index = 0; index < lines.size(); ++index) {
        const Line& line = lines[index];
        if (line.kind == IniLine::assignment && sameName(line.section, section) &&
            sameName(line.key, key)) {
            found = index;
        }
    }
    return found;
}

const std::string* IniText::value(const std::string& section, const std::string& key) const {
    const std::size_t index = find(section, key);
    return index < lines.size() ? &lines[index].value : nullptr;
}

void IniText::set(const std::string& section, const std::string& key, const std::string& newValue) {
    const std::string assignment = iniAssignment(key, newValue);
    const std::size_t counting = find(section, key);
    if (counting < lines.size()) {
        Line& line = lines[counting];
        line = read(assignment + endOf(line.raw), line.section);
        return;
    }

    const std::string lineEnd = lines.empty() ? "\n" : endOf(lines.front().raw);
    std::size_t place = lines.size();
    while (place > 0 && (lines[place - 1].kind == IniLine::nothing ||
                         !sameName(lines[place - 1].section, section))) {
        --place;
    }
    if (place == 0) {
        lines.push_back(read(iniHeader(section) + lineEnd, ""));
        place = lines.size();
    }
    lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(place),
                 read(assignment + lineEnd, section));
}

bool IniText::remove(const std::string* section, const std::string& key) {
    bool removed = false;
    bool headerGoes = false;
    bool onlyBlanks = true;
    for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
        if (line->kind == IniLine::assignment && sameName(line->key, key) &&
            (!section || sameName(line->section, *section))) {
            line->raw.clear();
            removed = headerGoes = true;
        } else if (line->kind == IniLine::header) {
            if (headerGoes && onlyBlanks) line->raw.clear();
            headerGoes = false;
            onlyBlanks = true;
        } else if (line->kind == IniLine::assignment || !line->key.empty()) {
            onlyBlanks = false;
        }
    }
    // All at once: one by one takes the square of their number.
    const auto isGone = [](const Line& line) { return line.raw.empty(); };
    lines.erase(std::remove_if(lines.begin(), lines.end(), isGone), lines.end());
    return removed;
}
