#include "commands.h"

#include <charconv>
#include <vector>

namespace {

bool splitWords(const std::string& line, std::vector<std::string>& words) {
    bool quoted = false;
    bool inWord = false;
    for (char c : line) {
        const bool separator = !quoted && (c == ' ' || c == '\t' || c == '\r');
        if (!separator && !inWord) {
            words.emplace_back();
        }
        inWord = !separator;
        if (c == '"') {
            quoted = !quoted;
        } else if (inWord) {
            words.back() += c;
        }
    }
    return !quoted;
}

// 1 to `maxDigits` digits of this base and nothing else.
bool parseNumber(const std::string& text, int base, std::size_t maxDigits, unsigned& number) {
    const char* end = text.data() + text.size();
    const auto [stop, failure] = std::from_chars(text.data(), end, number, base);
    return failure == std::errc() && stop == end && text.size() <= maxDigits;
}

bool isPrintable(const std::string& text) {
    for (char c : text) {
        if (c < ' ' || c > '~') {
            return false;
        }
    }
    return true;
}

bool parsePlugOption(const std::string& word, UnitOptions& options, std::string& error) {
    if (word == "blank") {
        options.product = factoryProduct;
        options.cbusFunctions = factoryCbusFunctions;
        return true;
    }
    const std::size_t equals = word.find('=');
    const std::string name = equals == std::string::npos ? "" : word.substr(0, equals);
    const std::string value = word.substr(equals + 1);
    if (name == "product") {
        if (value.size() > maxProductLength || !isPrintable(value)) {
            error = "product takes at most " + std::to_string(maxProductLength) +
                    " printable ASCII characters";
            return false;
        }
        options.product = value;
        return true;
    }
    if (name == "bcd" || name == "eeprom") {
        unsigned number = 0;
        if (!parseNumber(value, 16, 4, number)) {
            error = "'" + word + "' needs up to four hex digits";
            return false;
        }
        (name == "bcd" ? options.bcdDevice : options.cbusFunctions) =
            static_cast<std::uint16_t>(number);
        return true;
    }
    error = "unknown option '" + word + "' (blank, product=, bcd=, eeprom=)";
    return false;
}

}  // namespace

bool parseCommand(const std::string& line, Command& command, std::string& error) {
    std::vector<std::string> words;
    if (!splitWords(line, words)) {
        error = "a double quote is not closed";
        return false;
    }
    Command parsed;
    if (words.empty()) {
        command = parsed;
        return true;
    }

    struct Form {
        const char* name;
        Command::Kind kind;
        std::size_t minWords;
        std::size_t maxWords;
        const char* usage;
    };
    static constexpr Form forms[] = {
        {"plug", Command::Kind::plug, 2, 6, "plug N [blank] [product=TEXT] [bcd=HEX] [eeprom=HEX]"},
        {"unplug", Command::Kind::unplug, 2, 2, "unplug N"},
        {"stall", Command::Kind::stall, 3, 3, "stall N REQUEST|none"},
        {"pins", Command::Kind::pins, 3, 3, "pins N HEX|auto"},
        {"quit", Command::Kind::quit, 1, 1, "quit"},
    };
    const Form* form = nullptr;
    for (const Form& candidate : forms) {
        if (words[0] == candidate.name) {
            form = &candidate;
        }
    }
    if (form == nullptr) {
        error = "unknown command '" + words[0] + "' (plug, unplug, stall, pins, quit)";
        return false;
    }
    if (words.size() < form->minWords || words.size() > form->maxWords) {
        error = std::string("usage: ") + form->usage;
        return false;
    }
    parsed.kind = form->kind;
    if (words.size() > 1 && !parseNumber(words[1], 10, 2, parsed.unit)) {
        error = "'" + words[1] + "' is not a unit number (0 to 99)";
        return false;
    }
    if (parsed.kind == Command::Kind::plug && words.size() > 2) {
        parsed.options.emplace();
        for (std::size_t i = 2; i < words.size(); ++i) {
            if (!parsePlugOption(words[i], *parsed.options, error)) {
                return false;
            }
        }
    }
    if (parsed.kind == Command::Kind::stall || parsed.kind == Command::Kind::pins) {
        const char* off = parsed.kind == Command::Kind::stall ? "none" : "auto";
        unsigned number = 0;
        if (parseNumber(words[2], 16, 2, number)) {
            parsed.byte = static_cast<std::uint8_t>(number);
        } else if (words[2] != off) {
            error = "'" + words[2] + "' is neither one or two hex digits nor '" + off + "'";
            return false;
        }
    }
    command = parsed;
    return true;
}
