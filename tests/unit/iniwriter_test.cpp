#include "iniwriter.h"

#include <gtest/gtest.h>

namespace {

TEST(IniTextTest, ChangesNothingButTheKey) {
    struct Case {
        const char* text;
        const char* section;
        const char* key;
        const char* value;  // null: the key is removed
        const char* expected;
    } const cases[] = {
        {"", "a", "K", "1", "[a]\nK = 1\n"},
        {"", "", "K", "1", "[]\nK = 1\n"},
        {"; note", "a", "K", "1", "; note\n[a]\nK = 1\n"},
        {"x=1\n\n[b]\ny = 2 \n", "", "K", "1", "x=1\nK = 1\n\n[b]\ny = 2 \n"},
        {"[A ]\n# note\n\n[b]\n", "a", "K", "1", "[A ]\nK = 1\n# note\n\n[b]\n"},
        {"[a]\r\nx=1\r\n[b]\r\n", "A", "K", " ", "[a]\r\nx=1\r\nK = \" \"\r\n[b]\r\n"},
        {"[b]\r\nx=1", "a", "K", "", "[b]\r\nx=1\r\n[a]\r\nK = \r\n"},
        {"[a]\n[b]\n[A]\nx=1\n[c]\n", "a", "K", "1", "[a]\n[b]\n[A]\nx=1\nK = 1\n[c]\n"},
        {"[a]\nk=1\n\tK\t=\t2\r\n;\n", "a", "K", "3", "[a]\nk=1\nK = 3\r\n;\n"},
        {"[a]\nK=1", "a", "K", "2", "[a]\nK = 2"},
        {"[a\nK=1\n", "a", "K", "2", "[a\nK=1\n[a]\nK = 2\n"},

        {"K=1\n[a]\nK=1\nk=2\n\n[b]\nK=1\n", "a", "K", nullptr, "K=1\n\n[b]\nK=1\n"},
        {"K=1\nx\n[a]\nK=1\n", "", "K", nullptr, "x\n[a]\nK=1\n"},
        {"[a]\n;\nK=1\n[b]\n[A]\nK = 1\nx=1\n", "a", "K", nullptr, "[a]\n;\n[b]\n[A]\nx=1\n"},
        {"[a]\n[b]\nK=1\r\n", "b", "K", nullptr, "[a]\n"},
        {"[a]\nK=1\nJ=1", "a", "J", nullptr, "[a]\nK=1\n"},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.text);
        IniText ini(test.text);
        if (test.value) {
            ini.set(test.section, test.key, test.value);
            ASSERT_TRUE(ini.value(test.section, test.key));
            EXPECT_EQ(*ini.value(test.section, test.key), test.value);
        } else {
            const std::string section = test.section;
            EXPECT_TRUE(ini.remove(&section, test.key));
            EXPECT_FALSE(ini.value(test.section, test.key));
            EXPECT_FALSE(ini.remove(&section, test.key));
        }
        EXPECT_EQ(ini.text(), test.expected);
    }

    IniText all("K=1\n[a]\nk=1\n[b]\nx=1\nK=\n");
    EXPECT_TRUE(all.remove(nullptr, "K"));
    EXPECT_EQ(all.text(), "[b]\nx=1\n");
}

TEST(IniTextTest, RefusesWhatTheReaderWouldNotGiveBack) {
    const std::string quoted = "\"  a;b = [c] \"";
    EXPECT_EQ(iniAssignment("K", "  a;b = [c] "), "K = " + quoted);
    for (const char* value : {"", "a]", "\"a", "a\"", " \"a", ";", "=\r=", "\xc3\xa4"}) {
        EXPECT_NE(iniAssignment("K", value), "") << value;
    }
    for (const char* value : {"a\nb", "\n", "\"a\"", "\"", "\" ", " \""}) {
        EXPECT_EQ(iniAssignment("K", value), "") << value;
    }
    for (const char* name : {"", "a b", "a]b", "k=v", "#", "cu/params/3", "a@b\\x2dc.service"}) {
        EXPECT_EQ(iniHeader(name), "[" + std::string(name) + "]");
    }
    for (const char* name : {" ", " a", "a\t", "a]", "[a", "a\r", "a\nb", "]"}) {
        EXPECT_EQ(iniHeader(name), "") << name;
    }
}

}  // namespace
