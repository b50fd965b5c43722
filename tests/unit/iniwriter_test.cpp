#include "iniwriter.h"

#include <gtest/gtest.h>

namespace {

TEST(IniTextTest, ChangesNothingButTheKey) {
    struct Case {
        const char* text;
        const char* value;  // of K in section a; null: it is removed
        const char* expected;
    } const cases[] = {
        {"; note", "1", "; note\n[a]\nK = 1\n"},
        {"K=1\r\n[b]\r\nK=2", " ", "K=1\r\n[b]\r\nK=2\n[a]\r\nK = \" \"\r\n"},
        {"[A ]\n# note\n\n[b]\nx = 2 \n", "1", "[A ]\nK = 1\n# note\n\n[b]\nx = 2 \n"},
        {"[a]\n[b]\n[A]\nx=1\r\n[c]\n", "", "[a]\n[b]\n[A]\nx=1\r\nK = \n[c]\n"},
        {"[a]\nk=1\n\tK\t=\t2\r\n;\n", "3", "[a]\nk=1\nK = 3\r\n;\n"},
        {"[a\nK=1\n", "2", "[a\nK=1\n[a]\nK = 2\n"},

        {"K=1\n[a]\nK=1\nk=2\n\n[b]\nK=1\n", nullptr, "K=1\n\n[b]\nK=1\n"},
        {"[a]\n;\nK=1\n[b]\n[A]\nK = 1\nx=1\n", nullptr, "[a]\n;\n[b]\n[A]\nx=1\n"},
        {"[c]\n[a]\nK=1\r\n", nullptr, "[c]\n"},
    };
    const std::string section = "a";
    for (const Case& test : cases) {
        SCOPED_TRACE(test.text);
        IniText ini(test.text);
        if (test.value) {
            ini.set(section, "K", test.value);
        } else {
            EXPECT_TRUE(ini.remove(&section, "K"));
            EXPECT_FALSE(ini.remove(&section, "K"));
        }
        const std::string* value = ini.value(section, "K");
        EXPECT_EQ(value ? *value : "none", test.value ? test.value : "none");
        EXPECT_EQ(ini.text(), test.expected);
    }
}

TEST(IniTextTest, RefusesWhatTheReaderWouldNotGiveBack) {
    EXPECT_EQ(iniAssignment("K", "  a;b = [c] "), "K = \"  a;b = [c] \"");
    for (const char* value : {"", "a]", "\"a", "a\"", " \"a", ";", "=\r=", "\xc3\xa4"}) {
        EXPECT_NE(iniAssignment("K", value), "") << value;
    }
    for (const char* value : {"a\nb", "\"a\"", "\"", "\" "}) {
        EXPECT_EQ(iniAssignment("K", value), "") << value;
    }
    for (const char* name : {"", "a]b", "k=v", "#", "a@b\\x2dc.service"}) {
        EXPECT_EQ(iniHeader(name), "[" + std::string(name) + "]");
    }
    for (const char* name : {" a", "a\t", "a]", "[a", "a\r", "a\nb"}) {
        EXPECT_EQ(iniHeader(name), "") << name;
    }
}

}  // namespace
