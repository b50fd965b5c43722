#include <getopt.h>
#include <sysexits.h>

#include <csignal>
#include <cstdio>

#include "alarmsections.h"
#include "broker.h"
#include "logger.h"
#include "patience.h"
#include "sharedfile.h"
#include "status.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = Broker::Clock;

// The daemon looks once a second; twice as often keeps the delay short, and a version's time, which
// counts up by a second, near the clock's.
constexpr milliseconds writeInterval{500};
constexpr milliseconds lookInterval{1000};

constexpr const char* help =
    "usage: pinwatchd-mqtt [--config FILE] [--clear]\n"
    "\n"
    "Shows the alarms that an MQTT broker holds on this machine's unit, until it gets SIGTERM or\n"
    "SIGINT. Messages are in the system log.\n"
    "\n"
    "  --config FILE  the settings, if not those of /etc/pinwatchd-mqtt.conf\n"
    "  --clear        clear all alarms that it has raised, and end\n"
    "  --help, --version\n";

volatile std::sig_atomic_t stopped = 0;

// The alarms file, as far as it is the bridge's.
class AlarmsFile {
public:
    explicit AlarmsFile(const BridgeSettings& bridgeSettings) : settings(bridgeSettings) {}

    // False, with the reason in the log, if it cannot be done.
    bool update(const IniFile::Sections& wanted, bool withAlarms) {
        const Patience patience;
        SharedFile file(settings.alarmsFile);
        const bool done = file.update([&](std::string& text) {
            return updateSections(text, settings.prefix, withAlarms, wanted);
        });
        if (!done && file.problem != lastProblem) {
            logError("cannot update the alarms file: %s", file.problem.c_str());
        }
        lastProblem = done ? "" : file.problem;
        left = modificationTime(settings.alarmsFile);
        return done;
    }

    // Whether nobody else has changed it, by the rule by which the daemon tells.
    bool isAsLeft() const { return modificationTime(settings.alarmsFile) == left; }

private:
    const BridgeSettings& settings;
    std::string lastProblem;
    std::time_t left = 0;
};

// The alarm that the bridge raises itself, or an empty section.
IniSection ownAlarm(const BridgeSettings& settings, const Broker& broker,
                    const RetainedAlarms& retained) {
    if (Clock::now() - broker.lastHeard() >= seconds(settings.silenceSeconds)) {
        return {{"ALARM1", "no answer from the broker " + settings.host}};
    }
    if (!retained.excessKey().empty()) {
        return {{retained.excessKey(),
                 "more alarms than the limit of " + std::to_string(settings.maxAlarms)}};
    }
    return {};
}

int bridge(const BridgeSettings& settings) {
    RetainedAlarms retained(static_cast<std::size_t>(settings.maxAlarms));
    Broker broker(settings, retained);
    AlarmsFile file(settings);
    Status status(settings, broker);
    if (!broker.open()) return EX_CONFIG;

    IniSection own;
    bool isUpToDate = false;
    bool hasNews = false;
    Clock::time_point nextWrite;
    Clock::time_point nextLook;
    Clock::time_point nextReplay;
    while (stopped == 0) {
        const auto wait = std::chrono::ceil<milliseconds>(nextWrite - Clock::now());
        const bool isWaiting = !isUpToDate && hasNews;
        broker.run(isWaiting ? std::clamp(wait, milliseconds(0), lookInterval) : lookInterval);

        const auto now = Clock::now();
        const bool isTimeToLook = now >= nextLook;
        if (isTimeToLook) nextLook = now + lookInterval;
        const IniSection ownNow = ownAlarm(settings, broker, retained);
        if (ownNow != own && !ownNow.empty()) {
            logWarning("bridge alarm: %s", ownNow.begin()->second.c_str());
        }
        if (retained.takeChanged() || ownNow != own || (isTimeToLook && !file.isAsLeft())) {
            isUpToDate = false;
        }
        own = ownNow;
        // Before the first replay an own alarm in the file is an earlier bridge's, perhaps true.
        hasNews = retained.isKnown() || !own.empty();
        const bool isTimeToWrite = !isUpToDate && hasNews && now >= nextWrite;
        if (isTimeToWrite) {
            IniFile::Sections wanted;
            if (retained.isKnown()) wanted = sectionsOf(retained.alarms(), settings.prefix);
            if (!own.empty()) wanted[settings.prefix] = own;
            isUpToDate = file.update(wanted, retained.isKnown());
            nextWrite = Clock::now() + writeInterval;
        }
        if (isTimeToWrite || isTimeToLook) status.update(isUpToDate);
        // Of the alarms beyond the limit it is not known otherwise which have ended.
        if (!retained.excessKey().empty() && !retained.isReplaying() && now >= nextReplay) {
            nextReplay = now + seconds(settings.silenceSeconds);
            broker.subscribe();
        }
    }
    broker.close();
    return EX_OK;
}

void onStop(int) { stopped = 1; }

}  // namespace

int main(int argc, char* argv[]) {
    int clear = 0;
    const option options[] = {
        {"config", required_argument, nullptr, 'c'},
        {"clear", no_argument, &clear, 1},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'v'},
        {nullptr, 0, nullptr, 0},
    };
    std::string path = "/etc/pinwatchd-mqtt.conf";
    for (int given = 0; given != -1; given = getopt_long(argc, argv, "", options, nullptr)) {
        if (given == 'c') path = optarg;
        if (given == 'h') std::fputs(help, stdout);
        if (given == 'v') std::puts("pinwatchd-mqtt " PINWATCHD_VERSION);
        if (given == 'h' || given == 'v') return EX_OK;
        if (given == '?') return EX_USAGE;  // getopt_long has said it
    }
    if (optind < argc) {
        std::fputs(help, stderr);
        return EX_USAGE;
    }

    SysLog::instance()->setIdent("pinwatchd-mqtt");
    SysLog::instance()->configure(LOG_CONS | LOG_ODELAY, LOG_DAEMON, true);
    BridgeSettings settings;
    if (!readBridgeSettings(path, settings)) return EX_CONFIG;
    if (clear != 0) return AlarmsFile(settings).update({}, true) ? EX_OK : EX_IOERR;

    struct sigaction action = {};
    action.sa_handler = onStop;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    return bridge(settings);
}
