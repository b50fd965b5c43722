#include <err.h>
#include <fcntl.h>
#include <getopt.h>
#include <strings.h>
#include <sysexits.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "check.h"
#include "conversions.h"
#include "daemonview.h"
#include "iniwriter.h"
#include "lamptest.h"
#include "settings.h"
#include "sharedfile.h"
#include "show.h"

namespace {

constexpr unsigned patienceSeconds = 60;
// The daemon looks once a second; the rest is for its work in between.
constexpr int waitMs = 1500;

constexpr const char* help =
    "usage: pinwatchd-alarm [OPTION...] raise SECTION [ALARM1|ALARM2] [TEXT...]\n"
    "       pinwatchd-alarm [OPTION...] clear SECTION [ALARM1|ALARM2]\n"
    "       pinwatchd-alarm [OPTION...] clear --all\n"
    "       pinwatchd-alarm [OPTION...] show | check | test [SECONDS]\n"
    "\n"
    "Raises and clears alarms in the file that pinwatchd reads. SECTION is the name of their\n"
    "source, ALARM1 the alarm if none is said; clear clears both. show tells what is raised,\n"
    "and ends with 0 for no alarm, 1 for ALARM1, 2 for ALARM2. Behind -- all is SECTION and TEXT.\n"
    "check, for root, tells in one line whether a unit shows it, and test lights both lamps, for\n"
    "5 SECONDS each; they end as monitoring plugins do: 0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN.\n"
    "\n"
    "  --file FILE   the alarms file, if not the one that the daemon's settings name\n"
    "  --wait        return when a daemon with a unit must have read the change\n"
    "  --all         clear both alarms of all sections\n"
    "  --quiet       check: say nothing where all is well\n"
    "  --timeout N   check: take N seconds at most, if not 10\n"
    "  --no-wait     test: light the lamps no longer than it takes to see them lit\n"
    "  --help, --version\n";

struct Options {
    const char* file = nullptr;
    const char* timeout = nullptr;
    int wait = 0;
    int all = 0;
    int quiet = 0;
    int noWait = 0;
};

// Ends with `status`, or with EX_IOERR if standard output took not all that was printed.
[[noreturn]] void finish(int status) {
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) err(EX_IOERR, "standard output");
    std::exit(status);
}

// Reads all options. The other words are behind them in `argv` then, from optind on.
void readOptions(int argc, char* argv[], Options& options) {
    const option known[] = {
        {"file", required_argument, nullptr, 'f'},
        {"timeout", required_argument, nullptr, 't'},
        {"wait", no_argument, &options.wait, 1},
        {"all", no_argument, &options.all, 1},
        {"quiet", no_argument, &options.quiet, 1},
        {"no-wait", no_argument, &options.noWait, 1},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'v'},
        {nullptr, 0, nullptr, 0},
    };
    for (int given = 0; given != -1;) {
        given = getopt_long(argc, argv, "", known, nullptr);
        if (given == 'f') options.file = optarg;
        if (given == 't') options.timeout = optarg;
        if (given == 'h') std::fputs(help, stdout);
        if (given == 'v') std::puts("pinwatchd-alarm " PINWATCHD_VERSION);
        if (given == 'h' || given == 'v') finish(EX_OK);
        if (given == '?') std::exit(EX_USAGE);  // getopt_long has said it
    }
}

[[noreturn]] void failUsage(const char* reason) { errx(EX_USAGE, "%s, see --help", reason); }

// The file that the daemon reads if it is started now.
std::string fileOfSettings() {
    const IniFile settings(settingsPath, settingsOverlayPath);
    if (settings.primaryMtime != modificationTime(settingsPath) ||
        settings.overlayMtime != modificationTime(settingsOverlayPath)) {
        errx(EX_CONFIG, "the settings %s and %s cannot be read, say the alarms file with --file",
             settingsPath, settingsOverlayPath);
    }
    return alarmsPath(settings);
}

// The key that the word behind the section names, in any letter case, or null.
const char* alarmKey(const std::vector<std::string>& words) {
    for (const char* key : alarmKeys) {
        if (words.size() > 1 && strcasecmp(key, words[1].c_str()) == 0) return key;
    }
    return nullptr;
}

// Whether that word was meant for one: "alarm-2", "ALARM2:", or nothing but "2".
bool isNearlyAlarm(const std::vector<std::string>& words) {
    return words.size() > 1 && (strncasecmp(words[1].c_str(), "alarm", 5) == 0 ||
                                (words.size() == 2 && (words[1] == "1" || words[1] == "2")));
}

SharedFile::Edit raising(const std::vector<std::string>& words, bool verbatim) {
    if (words.empty() || words[0].empty()) failUsage("raise needs a section");
    const std::string& section = words[0];
    const char* said = alarmKey(words);
    if (!said && !verbatim && isNearlyAlarm(words)) {
        failUsage("the alarm is not ALARM1 or ALARM2; behind -- it is text");
    }
    const std::string key = said ? said : alarmKeys[0];
    std::string text;
    for (std::size_t word = said ? 2 : 1; word < words.size(); ++word) text += ' ' + words[word];
    const bool hasText = !text.empty();
    text.erase(0, 1);
    if (iniHeader(section).empty()) {
        errx(EX_DATAERR, "the section '%s' has a line feed, or blanks or brackets at an end",
             printable(section).c_str());
    }
    if (iniAssignment(key, text).empty()) {
        errx(EX_DATAERR, "the text '%s' has a line feed, or double quotes at the ends",
             printable(text).c_str());
    }
    return [=](std::string& content) {
        IniText ini(content);
        const std::string* value = ini.value(section, key);
        if (value && (!hasText || *value == text)) return false;
        ini.set(section, key, text);
        content = ini.text();
        return true;
    };
}

SharedFile::Edit clearing(const std::vector<std::string>& words, bool all) {
    const char* key = alarmKey(words);
    if (all ? !words.empty() : words.empty()) failUsage("clear needs a section or --all");
    if (words.size() > (key ? 2U : 1U)) failUsage("only ALARM1 or ALARM2 may follow the section");
    const std::string section = all ? "" : words[0];
    return [=](std::string& content) {
        IniText ini(content);
        bool changed = false;
        for (const char* other : alarmKeys) {
            if (!key || key == other) changed |= ini.remove(all ? nullptr : &section, other);
        }
        content = ini.text();
        return changed;
    };
}

// Locks are waited for, but not without end: a job that hangs would tell nobody.
const char* waitedFor = settingsPath;

void onTimeout(int) {
    constexpr const char* reason = ": not done within 60 seconds, is it locked?\n";
    for (const char* part : {"pinwatchd-alarm: ", waitedFor, reason}) {
        if (write(STDERR_FILENO, part, std::strlen(part)) < 0) break;
    }
    _exit(EX_TEMPFAIL);
}

// Changes the file, and has the daemons look at it at once.
void changeFile(const std::string& path, const SharedFile::Edit& edit) {
    alarm(patienceSeconds);
    SharedFile file(path);
    if (!file.update(edit)) errx(file.status, "%s", file.problem.c_str());
    if (!file.problem.empty()) warnx("%s", file.problem.c_str());
    alarm(0);
    wakeDaemons();
}

// A number of seconds, or `usual` if none is said.
unsigned secondsOf(const char* text, int usual) {
    int seconds = usual;
    if (text && (!toInt(text, seconds, 10) || seconds < 1 || seconds > 3600)) {
        failUsage("seconds are a number from 1 to 3600");
    }
    return static_cast<unsigned>(seconds);
}

// Ends the program if something is given that the command does not take.
void checkUsage(const std::string& command, const Options& options, std::size_t words) {
    const bool changes = command == "raise" || command == "clear";
    if (!changes && command != "show" && command != "check" && command != "test") {
        failUsage("the command is not raise, clear, show, check or test");
    }
    if (!changes && words > (command == "test" ? 1U : 0U)) failUsage("too many words");
    if (options.all && command != "clear") failUsage("--all goes with clear only");
    if (options.wait && !changes) failUsage("--wait goes with raise and clear only");
    if (options.quiet && command != "check") failUsage("--quiet goes with check only");
    if (options.timeout && command != "check") failUsage("--timeout goes with check only");
    if (options.noWait && command != "test") failUsage("--no-wait goes with test only");
}

}  // namespace

int main(int argc, char* argv[]) {
    argv[0] = program_invocation_short_name;
    // The number of a closed standard stream, given to the alarms file, would put messages in it.
    for (int file = 0; file >= 0 && file <= STDERR_FILENO;) file = open("/", O_PATH | O_CLOEXEC);
    signal(SIGXFSZ, SIG_IGN);  // an error of the write instead
    Options options;
    readOptions(argc, argv, options);
    if (optind >= argc) failUsage("nothing to do");
    const bool verbatim = std::strcmp(argv[optind - 1], "--") == 0;
    const std::string command = argv[optind];
    const std::vector<std::string> words(argv + optind + 1, argv + argc);
    checkUsage(command, options, words.size());
    const unsigned timeout = secondsOf(options.timeout, 10);
    SharedFile::Edit edit;
    if (command == "raise") edit = raising(words, verbatim);
    if (command == "clear") edit = clearing(words, options.all);
    unsigned seconds = 0;
    if (command == "test") seconds = secondsOf(words.empty() ? nullptr : words[0].c_str(), 5);
    if ((command == "check" || command == "test") && geteuid() != 0) {
        std::puts("UNKNOWN - only root may look at the daemon and its unit");
        finish(pluginUnknown);
    }

    if (command == "check") finish(check(options.file ? options.file : "", timeout, options.quiet));
    signal(SIGALRM, onTimeout);
    alarm(patienceSeconds);
    static const std::string path = options.file ? options.file : fileOfSettings();
    waitedFor = path.c_str();
    if (command == "test") finish(lampTest(path, options.noWait ? 0 : seconds, changeFile));
    if (command == "show") finish(show(path));
    changeFile(path, edit);
    if (options.wait) {
        alarm(patienceSeconds);  // it reads the file, which may be locked
        awaitShown(path, waitMs);
    }
    return EX_OK;
}
