#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <sstream>

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
    const std::string noPayload = "the payload is not ALARM1, ALARM2 or empty";
    const std::string noEnd = "the topic ends in a blank or a bracket";
    const struct {
        std::string topic;
        std::string payload;
        std::string read;  // "NAME ALARM 'TEXT'", or why it is refused
    } cases[] = {
        {"all/roof/door", "ALARM1 open since 10:42", "roof/door ALARM1 'open since 10:42'"},
        {"all/a[1].b", "alarm2", "a[1].b ALARM2 ''"},
        {"all/a", "", "a  ''"},
        {"all/a", std::string("ALARM1\n one\0two\n", 15), "a ALARM1 'one two'"},
        {"all/a", "ALARM1 " + longest.substr(1) + "\u00e4", "a ALARM1 '" + longest.substr(1) + "'"},
        {"all/a", "ALARM1 \"\"a\" b\"", "a ALARM1 'a\" b'"},
        {"all/" + longest, "ALARM1", longest + " ALARM1 ''"},
        {"all/" + longest + "x", "ALARM1", "the topic is too long"},
        {"all/a", "ALARM12", noPayload},
        {"all/a", " ALARM1", noPayload},
        {"all/a\n[b", "ALARM1", "the topic has control characters"},
        {"all/a]", "ALARM1", noEnd},
        {"all/a ", "ALARM1", noEnd},
        {"all", "ALARM1", "the topic names no alarm"},
    };
    for (const auto& row : cases) {
        const AlarmMessage message = readAlarmMessage("all", row.topic, row.payload);
        std::string read = message.name + " " + message.key + " '" + message.text + "'";
        if (message.refusal) read = message.refusal;
        EXPECT_EQ(read, row.read);
        EXPECT_TRUE(!message.refusal || message.key.empty());
    }
}

// What is held after steps: [ and ] begin and end a replay, a2 raises ALARM2 for "a", a0 clears it.
std::string after(const std::string& steps) {
    RetainedAlarms retained(2);
    std::istringstream words(steps);
    for (std::string word; words >> word;) {
        AlarmMessage message;
        message.name = word[0];
        if (word[1] != '0') message.key = std::string("ALARM") + word[1];
        if (word == "[") {
            retained.beginReplay();
        } else if (word == "]") {
            retained.endReplay();
        } else {
            retained.apply(message);
        }
    }
    std::string held = retained.isKnown() ? "" : "unknown ";
    for (const auto& [name, alarm] : retained.alarms()) held += name + alarm.key.back() + " ";
    return held + retained.excessKey();
}

TEST(RetainedAlarms, HoldsUpToItsLimitWhatTheLastWholeReplayHadAndWhatCameAfterIt) {
    EXPECT_EQ(after("[ a1 b1"), "unknown ");
    EXPECT_EQ(after("[ a1 b1 a0 ]"), "b1 ");
    EXPECT_EQ(after("[ a1 ] [ b2"), "a1 ");
    EXPECT_EQ(after("[ a1 ] [ b2 ]"), "b2 ");
    EXPECT_EQ(after("[ a1 [ b1 ]"), "b1 ");
    EXPECT_EQ(after("[ a1 ] a2 b1 a0"), "b1 ");
    EXPECT_EQ(after("[ a1 b1 c1 ] a2"), "a2 b1 ALARM1");
    EXPECT_EQ(after("[ a1 b1 ] c2 d1"), "a1 b1 ALARM2");
    EXPECT_EQ(after("[ a1 b1 c2 ] [ c2 ]"), "c2 ");
}

TEST(AlarmSections, ChangesTheBridgesOwnSectionsAlone) {
    const IniFile::Sections none;
    const IniFile::Sections own = {{"mqtt", {{"ALARM1", "silent"}}}};
    const IniFile::Sections one = sectionsOf({{"a", {"ALARM1", "x"}}}, "mqtt");
    const IniFile::Sections both =
        sectionsOf({{"A", {"ALARM1", "x"}}, {"a", {"ALARM2", "y"}}}, "mqtt");
    const std::string others = "; x\n[mqttx]\nALARM1=1\n[door]\nALARM2=1\n";
    const struct {
        std::string before;
        bool withAlarms;
        const IniFile::Sections& wanted;
        std::string after;
    } cases[] = {
        {"", true, both, "[mqtt/A]\nALARM1 = x\nALARM2 = y\n"},
        {"[MQTT/A]\nalarm1=x", true, one, "[MQTT/A]\nalarm1=x"},
        {"[mqtt/a]\nALARM1 = w\n", true, one, "[mqtt/a]\nALARM1 = x\n"},
        {"[mqtt/a]\nALARM2=y\nALARM1=x\n", true, one, "[mqtt/a]\nALARM1=x\n"},
        {others + "[mqtt/b]\nALARM1=1\n", true, none, others},
        {"[mqtt/a]\nALARM1=1\n[mqtt]\nALARM2=1\n", false, own,
         "[mqtt/a]\nALARM1=1\n[mqtt]\nALARM1 = silent\n"},
        {"[mqtt/a]\nALARM1 = x\n[mqtt]\nALARM1 = silent\n", true, one, "[mqtt/a]\nALARM1 = x\n"},
    };
    for (const auto& row : cases) {
        std::string text = row.before;
        EXPECT_EQ(updateSections(text, "mqtt", row.withAlarms, row.wanted),
                  row.before != row.after);
        EXPECT_EQ(text, row.after);
    }
}

TEST(BridgeSettings, TellsTheSettingThatCannotBeUsed) {
    const struct {
        const char* text;
        std::string problem;  // or none
    } cases[] = {
        {"[broker]\nhost = broker.example\nPort = 8883\n[alarms]\nTopic = a/b\n", ""},
        {"[broker]\nPort = 0\n", "[broker] Port: is out of range"},
        {"[broker]\nPort = x\n", "[broker] Port: is not a number"},
        {"Host = x\n", "[] Host: there is no such setting"},
        {"[broker]\nHost =\n", "[broker] Host: is empty"},
        {"[broker]\nCaFile = /none\n", "[broker] CaFile: cannot be read"},
        {"[broker]\nCaFile = /\n", "[broker] CaFile: cannot be read"},
        {"[broker]\nPasswordFile = /dev/null\n", "[broker] User: is needed with a password"},
        {"[broker]\nCaFile = /dev/null\nCertFile = /dev/null\n",
         "[broker] CertFile: goes with KeyFile"},
        {"[alarms]\nTopic = a/#\n", "[alarms] Topic: is no topic"},
        {"[alarms]\nTopic = caf\xe9\n", "[alarms] Topic: is no topic"},
        {"[alarms]\nPrefix = a]\n", "[alarms] Prefix: cannot name a section"},
        {"[alarms]\nFile = alarms\n", "[alarms] File: is no absolute path"},
        {"[alarms]\nTopic = a\n[status]\nTopic = a/b\n", "[status] Topic: is among the alarms"},
        {"[status]\nName = a/b\n", "[status] Name: has others than letters, digits, . _ -"},
    };
    const std::string path = testing::TempDir() + "settings";
    for (const auto& row : cases) {
        std::ofstream(path) << row.text;
        BridgeSettings settings;
        settings.name = "lamp";
        logged.clear();
        EXPECT_EQ(readBridgeSettings(path, settings), row.problem.empty());
        EXPECT_EQ(logged, row.problem.empty() ? "" : path + ": " + row.problem + "|");
    }
    std::ofstream(path) << "";
    BridgeSettings ofMachine;
    ofMachine.name = "(none)";
    EXPECT_FALSE(readBridgeSettings(path, ofMachine));
}

}  // namespace
