#pragma once

#include <string>
#include <vector>

#include "inifile.h"

// The line, without an end, that begins a section, or that gives a key its value. Empty where
// the text format has no line from which the reader gets the same name or value back.
std::string iniHeader(const std::string& section);
std::string iniAssignment(const std::string& key, const std::string& value);

// INI text in which single keys are set and removed. All else stays: order, comments, blanks,
// line ends, but that the last line gets one. What a line means is the reader's matter
// (readIniLine), so that names count in any letter case, and a section that occurs again is one
// section.
class IniText {
public:
    // Takes the text apart; one with a NUL in it is not for this class.
    explicit IniText(std::string text);

    // The text as it is now.
    std::string text() const;

    // The value that the reader would give the key, or null if it is absent.
    const std::string* value(const std::string& section, const std::string& key) const;

    // Gives the key a value, in the line that counted so far or in a new one at the end of the
    // section; the section is begun at the end of the text if it is absent. Both names and the
    // value must be ones that have a line (see above).
    void set(const std::string& section, const std::string& key, const std::string& newValue);

    // Removes the key from the section, or from all if `section` is null, and with it a header
    // that has only blank lines left below it. False if there is no such key.
    bool remove(const std::string* section, const std::string& key);

private:
    struct Line {
        std::string raw;  // with its end
        IniLine kind;
        std::string section;
        std::string key;  // of an assignment, otherwise what the line says
        std::string value;
    };
    static Line read(const std::string& raw, const std::string& section);
    // The number of lines up to the last one of the section that sets the key, or that is anything
    // if `key` is null; 0 if there is none.
    std::size_t countTo(const std::string& section, const std::string* key) const;

    std::vector<Line> lines;  // those removed are empty: to close the gaps takes the square of them
    std::string lineEnd;      // of the first line
};
