#include "iniwriter.h"

#include <strings.h>

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
    lineEnd = endOf(text.substr(0, text.find('\n') + 1));
    std::string section;
    for (std::size_t begin = 0, end = 0; begin < text.size(); begin = end) {
        end = text.find('\n', begin) + 1;
        lines.push_back(read(text.substr(begin, end - begin), section));
        section = lines.back().section;
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

std::size_t IniText::countTo(const std::string& section, const std::string* key) const {
    std::size_t count = lines.size();
    for (; count > 0; --count) {
        const Line& line = lines[count - 1];
        const bool counts = key ? line.kind == IniLine::assignment && sameName(line.key, *key)
                                : line.kind != IniLine::nothing;
        if (counts && sameName(line.section, section)) break;
    }
    return count;
}

const std::string* IniText::value(const std::string& section, const std::string& key) const {
    const std::size_t count = countTo(section, &key);
    return count > 0 ? &lines[count - 1].value : nullptr;
}

void IniText::set(const std::string& section, const std::string& key, const std::string& newValue) {
    const std::string assignment = iniAssignment(key, newValue);
    if (const std::size_t count = countTo(section, &key)) {
        Line& line = lines[count - 1];
        line = read(assignment + endOf(line.raw), line.section);
        return;
    }

    std::size_t place = countTo(section, nullptr);
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
            *line = {};
            removed = headerGoes = true;
        } else if (line->kind == IniLine::header) {
            if (headerGoes && onlyBlanks) *line = {};
            headerGoes = false;
            onlyBlanks = true;
        } else if (!line->key.empty()) {
            onlyBlanks = false;
        }
    }
    return removed;
}
