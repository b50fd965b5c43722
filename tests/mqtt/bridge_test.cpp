#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <fstream>

#include "alarmmessage.h"
#include "alarmsections.h"
#include "bridgesettings.h"
#include "retainedalarms.h"

namespace {

std::string logged;

}  // namespace

// Instead of libc's.
void vsyslog(int, const char* format, va_list arguments) {
    char line[500];
    std::vsnprintf(line, sizeof line, format, arguments);
    logged.append(line).append("|");
}

namespace {

TEST(AlarmMessage, ReadsWhatIsAnAlarmAndSaysWhyTheRestIsNone) {
    const std::string longest(200, 'x');
    const struct {
        const char* description;
        std::string topic;
        std::string payload;
        std::string name;
        std::string key;
        std::string text;
        const char* refusal;
    } cases[] = {
        {"alarm with text", "all/roof/door", "ALARM1 open since 10:42", "roof/door", "ALARM1",
         "open since 10:42", nullptr},
        {"letter case, no text", "all/a", "alarm2", "a", "ALARM2", "", nullptr},
        {"cleared", "all/a", "", "a", "", "", nullptr},
        {"line feeds, NUL", "all/a", std::string("ALARM1\n one\0two\n", 15), "a", "ALARM1",
         "one two", nullptr},
        {"cut before a character", "all/a", "ALARM1 " + std::string(199, 'x') + "\u00e4", "a",
         "ALARM1", std::string(199, 'x'), nullptr},
        {"quotes that no line can hold", "all/a", "ALARM1 \"\"a\" b\"", "a", "ALARM1", "a\" b",
         nullptr},
        {"brackets within", "all/a[1].b", "ALARM1", "a[1].b", "ALARM1", "", nullptr},
        {"longest name", "all/" + longest, "ALARM1", longest, "ALARM1", "", nullptr},
        {"other word", "all/a", "ALARM12", "a", "", "",
         "the payload is not ALARM1, ALARM2 or empty"},
        {"blank before", "all/a", " ALARM1", "a", "", "",
         "the payload is not ALARM1, ALARM2 or empty"},
        {"longer name", "all/" + longest + "x", "ALARM1", "", "", "", "the topic is too long"},
        {"line feed", "all/a\n[b", "ALARM1", "", "", "", "the topic has control characters"},
        {"bracket at the end", "all/a]", "ALARM1", "", "", "",
         "the topic ends in a blank or a bracket"},
        {"blank at the end", "all/a ", "ALARM1", "", "", "",
         "the topic ends in a blank or a bracket"},
        {"no name", "all", "ALARM1", "", "", "", "the topic names no alarm"},
        {"empty name", "all/", "ALARM1", "", "", "", "the topic names no alarm"},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.description);
        const AlarmMessage message = readAlarmMessage("all", row.topic, row.payload);
        EXPECT_EQ(message.name, row.name);
        EXPECT_EQ(message.key, row.key);
        EXPECT_EQ(message.text, row.text);
        EXPECT_STREQ(message.refusal, row.refusal);
    }
}

std::string namesIn(const RetainedAlarms& retained) {
    std::string names;
    for (const auto& [name, alarm] : retained.alarms()) names += name + alarm.key.back() + " ";
    return names;
}

TEST(RetainedAlarms, KeepsWhatItKnewUntilAReplayIsComplete) {
    RetainedAlarms retained(10);
    retained.beginReplay();
    retained.apply({"a", "ALARM1", ""});
    retained.apply({"b", "ALARM1", ""});
    EXPECT_FALSE(retained.isKnown());
    EXPECT_FALSE(retained.takeChanged());
    retained.endReplay();
    EXPECT_TRUE(retained.isKnown());
    EXPECT_TRUE(retained.takeChanged());
    EXPECT_EQ(namesIn(retained), "a1 b1 ");

    retained.beginReplay();
    retained.apply({"lost", "ALARM1", ""});
    retained.beginReplay();
    retained.apply({"b", "ALARM2", ""});
    retained.apply({"c", "ALARM1", ""});
    retained.apply({"c", "", ""});
    EXPECT_EQ(namesIn(retained), "a1 b1 ");
    EXPECT_FALSE(retained.takeChanged());
    retained.endReplay();
    EXPECT_EQ(namesIn(retained), "b2 ");

    retained.takeChanged();
    retained.apply({"b", "", ""});
    EXPECT_TRUE(retained.takeChanged());
    EXPECT_EQ(namesIn(retained), "");
}

TEST(RetainedAlarms, KeepsNoMoreThanTheLimitButTheHighestOfTheRest) {
    RetainedAlarms retained(2);
    retained.beginReplay();
    for (const char* name : {"a", "b", "c"}) retained.apply({name, "ALARM1", ""});
    retained.endReplay();
    EXPECT_EQ(namesIn(retained), "a1 b1 ");
    EXPECT_EQ(retained.excessKey(), "ALARM1");
    retained.apply({"d", "ALARM2", ""});
    retained.apply({"c", "ALARM1", ""});
    retained.apply({"a", "ALARM2", ""});
    EXPECT_EQ(namesIn(retained), "a2 b1 ");
    EXPECT_EQ(retained.excessKey(), "ALARM2");
    retained.beginReplay();
    retained.apply({"d", "ALARM2", ""});
    retained.endReplay();
    EXPECT_EQ(namesIn(retained), "d2 ");
    EXPECT_EQ(retained.excessKey(), "");
}

TEST(AlarmSections, ChangesTheBridgesOwnSectionsAlone) {
    const IniFile::Sections own = {{"mqtt", {{"ALARM1", "silent"}}}};
    const IniFile::Sections one = {{"mqtt/a", {{"ALARM1", "x"}}}};
    const IniFile::Sections both = {{"mqtt/a", {{"ALARM1", "x"}, {"ALARM2", "y"}}}};
    const struct {
        const char* description;
        std::string before;
        bool withAlarms;
        IniFile::Sections wanted;
        std::string after;
    } cases[] = {
        {"first", "", true, one, "[mqtt/a]\nALARM1 = x\n"},
        {"as it is, in another form", "[MQTT/A]\nalarm1=x", true, one, "[MQTT/A]\nalarm1=x"},
        {"other text", "[mqtt/a]\nALARM1 = w\n", true, one, "[mqtt/a]\nALARM1 = x\n"},
        {"one key more", "[mqtt/a]\nALARM1 = x\n", true, both,
         "[mqtt/a]\nALARM1 = x\nALARM2 = y\n"},
        {"one key less", "[mqtt/a]\nALARM2=y\nALARM1=x\n", true, one, "[mqtt/a]\nALARM1=x\n"},
        {"others stay",
         "; x\n[mqttx]\nALARM1=1\n[mqtt/b]\nALARM1=1\n[door]\nALARM2=1\n",
         true,
         {},
         "; x\n[mqttx]\nALARM1=1\n[door]\nALARM2=1\n"},
        {"nothing known yet", "[mqtt/a]\nALARM1=1\n[mqtt]\nALARM2=1\n", false, own,
         "[mqtt/a]\nALARM1=1\n[mqtt]\nALARM1 = silent\n"},
        {"silence is over", "[mqtt/a]\nALARM1 = x\n[mqtt]\nALARM1 = silent\n", true, one,
         "[mqtt/a]\nALARM1 = x\n"},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.description);
        std::string text = row.before;
        EXPECT_EQ(updateSections(text, "mqtt", row.withAlarms, row.wanted),
                  row.before != row.after);
        EXPECT_EQ(text, row.after);
    }
}

TEST(AlarmSections, MergesNamesThatDifferInLetterCase) {
    const IniFile::Sections sections =
        sectionsOf({{"A", {"ALARM1", "x"}}, {"a", {"ALARM2", "y"}}}, "mqtt");
    EXPECT_EQ(sections, (IniFile::Sections{{"mqtt/A", {{"ALARM1", "x"}, {"ALARM2", "y"}}}}));
}

TEST(BridgeSettings, TellsTheSettingThatCannotBeUsed) {
    const struct {
        const char* text;
        std::string problem;  // or none
    } cases[] = {
        {"[broker]\nhost = broker.example\nPort = 8883\n[alarms]\nTopic = a/b\n", ""},
        {"[broker]\nPort = 0\n", "[broker] Port: is out of range"},
        {"[broker]\nPort = x\n", "[broker] Port: is not a number"},
        {"[broker]\nHots = x\n", "[broker] Hots: there is no such setting"},
        {"Host = x\n", "[] Host: there is no such setting"},
        {"[broker]\nHost =\n", "[broker] Host: is empty"},
        {"[broker]\nCaFile = /none\n", "[broker] CaFile: cannot be read"},
        {"[broker]\nPasswordFile = /dev/null\n", "[broker] User: is needed with a password"},
        {"[broker]\nCaFile = /dev/null\nCertFile = /dev/null\n",
         "[broker] CertFile: goes with KeyFile"},
        {"[alarms]\nTopic = a/#\n", "[alarms] Topic: is no topic"},
        {"[alarms]\nPrefix = a]\n", "[alarms] Prefix: cannot name a section"},
        {"[alarms]\nFile = alarms\n", "[alarms] File: is no absolute path"},
        {"[alarms]\nLimit = 1001\n", "[alarms] Limit: is out of range"},
        {"[alarms]\nTopic = a\n[status]\nTopic = a/b\n", "[status] Topic: is among the alarms"},
        {"[status]\nName = a/b\n", "[status] Name: has others than letters, digits, . _ -"},
    };
    const std::string path = testing::TempDir() + "settings";
    for (const auto& row : cases) {
        SCOPED_TRACE(row.text);
        std::ofstream(path) << row.text;
        BridgeSettings settings;
        settings.name = "lamp";
        logged.clear();
        EXPECT_EQ(readBridgeSettings(path, settings), row.problem.empty());
        EXPECT_EQ(logged, row.problem.empty() ? "" : path + ": " + row.problem + "|");
    }
}

}  // namespace
