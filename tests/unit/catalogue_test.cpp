#include <gtest/gtest.h>
#include <libintl.h>
#include <syslog.h>

#include <clocale>
#include <cstdlib>
#include <filesystem>

#include "tq5ftdi.h"
#include "translations_stl.h"

static std::string logged;

extern "C" void vsyslog(int, const char* format, va_list arguments) {
    char text[256];
    vsnprintf(text, sizeof text, format, arguments);
    logged = text;
}

// With libc's gettext, and a catalogue made from the tree's template.
TEST(Catalogue, IsUsedOnceALocaleIsSelected) {
    char folder[] = "/tmp/pinwatchd-test-XXXXXX";
    ASSERT_TRUE(mkdtemp(folder));
    const std::string messages = std::string(folder) + "/xx/LC_MESSAGES";
    std::filesystem::create_directories(messages);
    const std::string make =
        "msgen '" PINWATCHD_TEMPLATE R"(' | sed 's/^msgstr "close/msgstr "CLOSE/' | msgfmt -o )";
    ASSERT_EQ(std::system((make + messages + "/pinwatchd.mo -").c_str()), 0);
    Translations::setTranslationName("pinwatchd");
    bindtextdomain("pinwatchd", folder);
    setenv("LANGUAGE", "xx", 1);

    { TQ5Ftdi unit; }
    EXPECT_EQ(logged, "close FTDI device '' ()");
    ASSERT_TRUE(std::setlocale(LC_ALL, "C.UTF-8"));
    const std::string id =
        "TQ5Ftdi|\x04"
        "close FTDI device '%s' (%s)";
    if (gettext(id.c_str()) == id) GTEST_SKIP() << "this libc looks nothing up in C.UTF-8";
    { TQ5Ftdi unit; }
    EXPECT_EQ(logged, "CLOSE FTDI device '' ()");
    std::filesystem::remove_all(folder);
}
