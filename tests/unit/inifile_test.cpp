#include "inifile.h"

#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <new>
#include <utility>

#include "alarmmask.h"
#include "conversions.h"
#include "world.h"

namespace {

// The allocation that fails: 0 for the next one; negative for none.
int allocationsLeft = -1;

// Called once, at the next allocation.
std::function<void()> onAllocation;

}  // namespace

// Not inlined, or gcc takes it and what it leaves as it is for mismatched.
__attribute__((noinline)) void* operator new(std::size_t size) {
    if (onAllocation) std::exchange(onAllocation, nullptr)();
    if (allocationsLeft >= 0 && allocationsLeft-- == 0) throw std::bad_alloc();
    if (void* memory = std::malloc(size)) return memory;
    throw std::bad_alloc();
}

// So does AddressSanitizer.
extern "C" const char* __asan_default_options() { return "alloc_dealloc_mismatch=0"; }

namespace {

using IniFileTest = WorldTest;

TEST_F(IniFileTest, ReadsTheTextFormat) {
    const std::string longText(5000, 'x');
    const std::string edge(511, 'e');  // fills the reader's buffer to the last byte
    struct Case {
        std::string text, section, key, value;
    } const cases[] = {
        {"a=1", "", "a", "1"},
        {" \t[common] \r\n Data = /tmp/x \v\b\r\n", "COMMON", "data", "/tmp/x"},
        {"[[common]]\nk=v\n", "common", "k", "v"},
        {"[ cu/params/3 ]\nk=v", "cu/params/3", "k", "v"},
        {"[x]\n[ ]\nk=v", "", "k", "v"},
        {"[x]\n[common] ; note\nk=v", "x", "k", "v"},
        {"[a=b]\nk=v", "a=b", "k", "v"},
        {"[x=1", "", "[x", "1"},
        {"[\v]\nk=v", "\v", "k", "v"},
        {"a=b=c", "", "a", "b=c"},
        {"my key = x y", "", "my key", "x y"},
        {"n = 5 ; five", "", "n", "5 ; five"},
        {"q=\"\"", "", "q", ""},
        {"q=\"", "", "q", ""},
        {"q=\"  a b  \"", "", "q", "  a b  "},
        {"q=\"\"a\"b\"\"", "", "q", "a\"b"},
        {"q=\"a", "", "q", "\"a"},
        {"k=1\nK=2", "", "k", "2"},
        {"k=" + longText + "\nl=2", "", "l", "2"},
        {longText + "=v", "", longText, "v"},
        {edge + "\n" + edge + "=v\n", "", edge, "v"},
        {std::string("k=1\0hidden\n2\n", 13), "", "k", "12"},
        {std::string("\0\nk=1\n", 6), "", "k", "1"},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.text.substr(0, 60));
        const IniFile document(write("f", test.text, 1));
        EXPECT_TRUE(document.hasKey(test.section, test.key));
        EXPECT_EQ(document.value(test.section, test.key, "absent"), test.value);
    }
}

TEST_F(IniFileTest, SkipsLinesThatFitNoRule) {
    IniFile document(write("f", "; k=1\n  #k=1\n=1\n = 1\nALARM1\n\n[empty]\n]\n[", 1));
    std::deque<std::string> names = {"old"};
    document.sectionNames(names);
    EXPECT_TRUE(names.empty());
    EXPECT_FALSE(document.hasKey("empty", ""));

    EXPECT_TRUE(document.load(write("g", "[b]\nx=1\n[A]\nx=1\n[B]\nX=2\n[_]\nx=1", 1)));
    document.sectionNames(names);
    EXPECT_EQ(names, (std::deque<std::string>{"_", "A", "b"}));
    EXPECT_EQ(document.value("b", "x", ""), "2");

    EXPECT_FALSE(document.load(folder));
    EXPECT_FALSE(document.load(folder + "/missing"));
    EXPECT_EQ(document.value("a", "x", ""), "1");
    const std::string fallback = "fallback";
    EXPECT_EQ(&document.value("a", "y", fallback), &fallback);
}

TEST_F(IniFileTest, ReloadsWhatChanged) {
    const auto text = [](const IniFile& document) {
        return document.value("", "a", "-") + document.value("", "b", "-") +
               document.value("", "c", "-");
    };
    const std::string overlay = write("overlay", "b=o\nc=o", 5);
    IniFile document(folder + "/primary", overlay);
    EXPECT_EQ(text(document), "-oo");

    write("primary", "a=p\nb=p", 10);
    document.reloadIfChanged();
    EXPECT_EQ(text(document), "poo");
    write("primary", "a=unseen", 10);
    write("overlay", "b=O", 6);  // c stays until the primary changes
    document.reloadIfChanged();
    EXPECT_EQ(text(document), "pOo");
    write("overlay", "b=unseen", 6);
    document.reloadIfChanged();
    EXPECT_EQ(text(document), "pOo");
    write("overlay", "b=O", 6);
    write("primary", "a=older", 9);
    document.reloadIfChanged();
    EXPECT_EQ(text(document), "olderO-");

    std::filesystem::remove(folder + "/primary");
    for (int poll = 0; poll < 2; ++poll) {
        document.reloadIfChanged();
        EXPECT_EQ(text(document), "-O-");
        EXPECT_EQ(document.primaryMtime, 9);
        EXPECT_EQ(document.overlayMtime, 6);
    }
    write("primary", "a=epoch", 0);
    document.reloadIfChanged();
    EXPECT_EQ(text(document), "epochO-");
    EXPECT_EQ(document.primaryMtime, 0);

    // A version that comes while the one before is read is not taken for that one.
    write("primary", "a=old", 20);
    onAllocation = [&] { std::filesystem::rename(write("new", "a=new", 21), folder + "/primary"); };
    document.reloadIfChanged();
    document.reloadIfChanged();
    EXPECT_EQ(text(document), "newO-");
    EXPECT_EQ(document.primaryMtime, 21);
}

TEST_F(IniFileTest, LeavesTheDocumentWhenMemoryRunsOut) {
    const std::string longText(300, 'x');
    IniFile ini(write("a", "[b]\nk=1\n", 1));
    const std::string other = write("b", "[b]\nk=2\n[c]\n" + longText + "=" + longText, 1);
    const int descriptor = dup(0);
    close(descriptor);
    int failing = 0;
    for (bool loaded = false; !loaded; ++failing) {
        EXPECT_EQ(ini.value("b", "k", ""), "1");
        EXPECT_FALSE(ini.hasKey("c", longText));
        allocationsLeft = failing;
        loaded = ini.load(other);
        allocationsLeft = -1;
    }
    EXPECT_GT(failing, 8);
    EXPECT_EQ(ini.value("b", "k", ""), "2");
    const int next = dup(0);
    EXPECT_EQ(next, descriptor);  // no file was left open, and so no lock
    close(next);
}

TEST_F(IniFileTest, TellsModificationTimes) {
    EXPECT_EQ(modificationTime(folder + "/missing"), 0);
    EXPECT_EQ(modificationTime(write("f", "", 7) + "/below"), -1);
    // A 32-bit value on every ABI, and a late time is no failure.
    if constexpr (sizeof(std::time_t) > 4) {
        EXPECT_EQ(modificationTime(write("f", "", 2147483653)), INT_MIN + 5);
    }
}

TEST_F(IniFileTest, ReducesAlarmsToTheMask) {
    struct Case {
        const char* text;
        AlarmMask mask;
    } const cases[] = {
        {"", 0},
        {"[a]\nalarm1=\n", 1},
        {"ALARM1=1\n[b]\nx=1", 1},
        {"[a]\nALARM1=1\n[b]\nALARM2=0\n", 2},
        {"[a]\nALARM2=off\nALARM1=1\n[b]\nALARM1=1", 2},
        {"[ALARM1]\nALARM12=1\nALARM=2\n", 0},
    };
    for (const Case& test : cases) {
        EXPECT_EQ(evaluateAlarmMask(IniFile(write("f", test.text, 1))), test.mask) << test.text;
    }
}

TEST(ToInt, TakesWholeNumbersOf32Bits) {
    constexpr int untouched = 99;
    struct Case {
        const char* text;
        int base;
        int value;  // untouched: refused
    } const cases[] = {
        {"42", 10, 42},     {"-7", 10, -7},      {"+7", 10, 7},    {"2147483647", 10, INT_MAX},
        {"0403", 16, 1027}, {"0x403", 16, 1027}, {"010", 0, 8},    {"-2147483648", 10, INT_MIN},
        {"zz", 36, 1295},   {"0x1f", 0, 31},     {"\t\n0", 10, 0}, {" 42", 10, 42},
        {"", 10, 99},       {"42 ", 10, 99},     {"abc", 10, 99},  {"2147483648", 10, 99},
        {"12abc", 10, 99},  {"0x10", 10, 99},    {"1", 99, 99},    {"-2147483649", 10, 99},
        {" ", 10, 99},      {"g", 16, 99},       {"4-2", 10, 99},  {"99999999999999999999", 10, 99},
    };
    for (const Case& test : cases) {
        int value = untouched;
        EXPECT_EQ(toInt(test.text, value, test.base), test.value != untouched) << test.text;
        EXPECT_EQ(value, test.value) << test.text;
    }
}

}  // namespace
