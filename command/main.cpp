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

constexpr const char* alarmKeys[] = {"ALARM1", "ALARM2"};
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
    bool wait = false;
    bool all = false;
    bool quiet = false;
    bool noWait = false;
    const char* timeout = nullptr;
};

constexpr option knownOptions[] = {
    {"file", required_argument, nullptr, 'f'},
    {"wait", no_argument, nullptr, 'w'},
    {"all", no_argument, nullptr, 'a'},
    {"quiet", no_argument, nullptr, 'q'},
    {"no-wait", no_argument, nullptr, 'n'},
    {"timeout", required_argument, nullptr, 't'},
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'v'},
    {nullptr, 0, nullptr, 0},
};

// Ends with `status`, or with EX_IOERR if standard output took not all that was printed.
[[noreturn]] void finish(int status) {
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) err(EX_IOERR, "standard output");
    std::exit(status);
}

// Reads all options. The other words are behind them in `argv` then, from optind on.
void readOptions(int argc, char* argv[], Options& options) {
    for (;;) {
        switch (getopt_long(argc, argv, "", knownOptions, nullptr)) {
            case -1:
                return;
            case 'f':
                options.file = optarg;
                break;
            case 'w':
                options.wait = true;
                break;
            case 'a':
                options.all = true;
                break;
            case 'q':
                options.quiet = true;
                break;
            case 'n':
                options.noWait = true;
                break;
            case 't':
                options.timeout = optarg;
                break;
            case 'h':
                std::fputs(help, stdout);
                finish(EX_OK);
            case 'v':
                std::puts("pinwatchd-alarm " PINWATCHD_VERSION);
                finish(EX_OK);
            default:  // getopt_long has said it
                std::exit(EX_USAGE);
        }
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

// The key of an alarm's name in any letter case, or null.
const char* alarmKey(const std::string& name) {
    for (const char* key : alarmKeys) {
        if (strcasecmp(key, name.c_str()) == 0) return key;
    }
    return nullptr;
}

// Whether a text was meant for the name of an alarm: "alarm-2", "ALARM2:", or nothing but "2".
bool isNearlyAlarm(const std::vector<std::string>& text) {
    return strncasecmp(text[0].c_str(), "alarm", 5) == 0 ||
           (text.size() == 1 && (text[0] == "1" || text[0] == "2"));
}

SharedFile::Edit raising(const std::vector<std::string>& words, bool verbatim) {
    if (words.empty() || words[0].empty()) failUsage("raise needs a section");
    const std::string& section = words[0];
    const char* said = words.size() > 1 ? alarmKey(words[1]) : nullptr;
    if (words.size() > 1 && !said && !verbatim && isNearlyAlarm({words.begin() + 1, words.end()})) {
        failUsage("the alarm is not ALARM1 or ALARM2; behind -- it is text");
    }
    const std::string key = said ? said : alarmKeys[0];
    const std::size_t textBegin = said ? 2 : 1;
    const bool hasText = words.size() > textBegin;
    std::string text;
    for (std::size_t index = textBegin; index < words.size(); ++index) {
        if (index > textBegin) text += ' ';
        text += words[index];
    }
    if (iniHeader(section).empty()) {
        errx(EX_DATAERR,
             "no section can be named '%s': it has a line feed, or blanks or brackets at an end",
             printable(section).c_str());
    }
    if (iniAssignment(key, text).empty()) {
        errx(EX_DATAERR,
             "no alarm can have the text '%s': it has a line feed, or double quotes at the ends",
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
    const char* key = words.size() > 1 ? alarmKey(words[1]) : nullptr;
    if (all ? !words.empty() : words.empty()) failUsage("clear needs a section or --all");
    if (words.size() > 2 || (words.size() == 2 && !key)) {
        failUsage("what follows the section is not ALARM1 or ALARM2");
    }
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
    waitedFor = path.c_str();
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

// check and test. Returns the exit status.
int look(const std::string& command, const Options& options,
         const std::vector<std::string>& words) {
    if (command == "check") {
        if (!words.empty()) failUsage("check takes no words");
        return check(options.file ? options.file : "", secondsOf(options.timeout, 10),
                     options.quiet);
    }
    if (words.size() > 1) failUsage("test takes no words but the seconds");
    const unsigned seconds = secondsOf(words.empty() ? nullptr : words[0].c_str(), 5);
    alarm(patienceSeconds);
    const std::string path = options.file ? options.file : fileOfSettings();
    return lampTest(path, options.noWait ? 0 : seconds,
                    [&path](const SharedFile::Edit& edit) { changeFile(path, edit); });
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
    const bool changes = command == "raise" || command == "clear";
    if (!changes && command != "show" && command != "check" && command != "test") {
        failUsage("the command is not raise, clear, show, check or test");
    }
    if (options.all && command != "clear") failUsage("--all goes with clear only");
    if (options.wait && !changes) failUsage("--wait goes with raise and clear only");
    if ((options.quiet || options.timeout) && command != "check") {
        failUsage("--quiet and --timeout go with check only");
    }
    if (options.noWait && command != "test") failUsage("--no-wait goes with test only");
    signal(SIGALRM, onTimeout);
    if (command == "check" || command == "test") finish(look(command, options, words));
    if (command == "show" && !words.empty()) failUsage("show takes no words");
    SharedFile::Edit edit;
    if (command == "raise") edit = raising(words, verbatim);
    if (command == "clear") edit = clearing(words, options.all);

    alarm(patienceSeconds);
    static const std::string path = options.file ? options.file : fileOfSettings();
    waitedFor = path.c_str();
    if (command == "show") finish(show(path, isatty(STDOUT_FILENO) == 1));
    changeFile(path, edit);
    if (options.wait) awaitShown(path, waitMs);
    return EX_OK;
}
