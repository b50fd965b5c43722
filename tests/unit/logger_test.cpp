#include "logger.h"

#include <libintl.h>

#include "translations_stl.h"
#include "world.h"

namespace {

using LoggerTest = WorldTest;

TEST_F(LoggerTest, ReopensTheLogWhenItsParametersChange) {
    SysLog::release();
    SysLog* log = SysLog::instance();
    EXPECT_EQ(log, SysLog::instance());
    log->setIdent("pinwatchd");
    EXPECT_EQ(world.take(), "closelog|setlogmask 0x7f|openlog pinwatchd 0x5 8|");
    world.terminal = true;
    log->configure(6, 27, true);
    EXPECT_EQ(world.take(), "closelog|setlogmask 0x7f|openlog pinwatchd 0x27 24|");
    world.terminal = false;
    for (int i = 0; i < 2; ++i) {  // out of range: differs from the level it is clamped to
        log->setDebugLevel(7);
        EXPECT_EQ(log->debugLevel, 3);
        EXPECT_EQ(world.take(),
                  "closelog|setlogmask 0xff|openlog pinwatchd 0x7 24|"
                  "<7>debug level changed to 3|");
    }
    log->setDebugLevel(3);
    log->setIdent("pinwatchd");
    EXPECT_EQ(world.take(), "");
    log->configure(0, 24, false);
    EXPECT_EQ(world.take(),
              "closelog|setlogmask 0xff|openlog pinwatchd 0x5 24|"
              "<7>debug level changed to 3|");
    log->setDebugLevel(-2);
    EXPECT_EQ(log->debugLevel, 0);
    log->setIdent("");
    EXPECT_EQ(world.take(),
              "closelog|setlogmask 0x7f|openlog pinwatchd 0x5 24|"
              "closelog|setlogmask 0x7f|openlog null 0x5 24|");
}

TEST_F(LoggerTest, WritesByPriorityAndLevel) {
    for (int level = 0; level <= 3; ++level) {
        SysLog::instance()->setDebugLevel(level);
        world.trace.clear();
        logError("error %d", 1);
        logWarning("%s", "warning");
        logInfo("info");
        SysLog::instance()->debug("debug");
        logDebug1("one");
        logDebug2("two");
        logDebug3("three");
        const char* const added[] = {"", "<7>debug|<7>one|", "<7>two|", "<7>three|"};
        std::string expected = "<3>error 1|<4>warning|<6>info|";
        for (int i = 0; i <= level; ++i) expected += added[i];
        EXPECT_EQ(world.take(), expected);
    }
}

TEST(TranslationsTest, BindsAndSelectsTheDomain) {
    EXPECT_DEATH(Translations::setTranslationName(""), "Translations domain is not defined!!!");
    EXPECT_DEATH(Translations::setTranslationName(nullptr),
                 "Translations domain is not defined!!!");
    Translations::setTranslationName("first");
    Translations::setTranslationName("second");
    EXPECT_STREQ(textdomain(nullptr), "second");
    for (const char* name : {"first", "second"}) {
        EXPECT_STREQ(bindtextdomain(name, nullptr), "/opt/orvel/share/locale");
        EXPECT_STREQ(bind_textdomain_codeset(name, nullptr), "UTF-8");
    }
}

}  // namespace
