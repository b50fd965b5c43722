#include "check.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <functional>

#include "daemonview.h"
#include "settings.h"
#include "show.h"

namespace {

constexpr const char* statusNames[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};
constexpr const char* unitRelease = "0600";  // bcdDevice of the FT232R family
constexpr const char* productMark = "TQ-5";
constexpr int bothInIoMode = 0xaa;
constexpr std::int64_t patienceMs = 3000;  // three of the daemon's cycles
constexpr timespec nap = {0, 20000000};
constexpr timespec shortNap = {0, 2000000};  // for what is measured
constexpr std::size_t maxSources = 5;

// What is waited for just now, in case it does not come.
std::function<void(const std::string&)> tellStage = [](const std::string&) {};

Verdict critical(const std::string& text) { return {pluginCritical, text, "", ""}; }

// Why the daemon does not open an attached device, and what to do; in the words of its messages.
Verdict notOpened(const UsbDevice& device) {
    tellStage("the device " + nameOf(device) + " does not answer: replug it");
    if (device.authorized == "0") {
        return critical("the device " + device.node +
                        " is not authorized: let it in (USBGuard, authorized_default)");
    }
    if (device.release != unitRelease) {
        return critical("FTDI device is not compatible: " + nameOf(device) +
                        " has another chip (bcdDevice " + device.release +
                        "), it is of the wrong model");
    }
    if (!strcasestr(device.product.c_str(), productMark)) {
        return critical("unknown FTDI device '" + device.product + "' (" + device.node +
                        "): if it is meant to be the unit, program its product string");
    }
    const int functions = readCbusFunctions(device);
    if (functions < 0) {
        return critical("the EEPROM of " + nameOf(device) + " cannot be read (" +
                        std::strerror(errno) + "): replug it");
    }
    if (functions != bothInIoMode) {
        return critical("the cbus functions of " + nameOf(device) +
                        " are not configured (cbus0=" + std::to_string(functions & 15) +
                        ", cbus1=" + std::to_string(functions >> 4) +
                        "): program its EEPROM and replug it");
    }
    return critical(nameOf(device) +
                    " is attached but not open: see the log, end what else uses "
                    "it, and replug it");
}

Verdict noUnitOpen() {
    const std::vector<UsbDevice> devices = attachedDevices();
    if (devices.empty()) return critical("no unit is attached: plug it in");
    // The most likely one: others with these IDs are serial adapters.
    for (const UsbDevice& device : devices) {
        if (strcasestr(device.product.c_str(), productMark)) return notOpened(device);
    }
    return notOpened(devices.front());
}

std::string stateOfPins(int pins) {
    for (int mask = 0; mask < 3; ++mask) {
        if (pinValues[mask] == pins) return alarmNames[mask];
    }
    return "no state (both outputs are low)";
}

// The alarms of a file, as far as a line can tell them.
struct Alarms {
    AlarmMask mask = 0;
    std::size_t sources = 0;  // sections that raise any
    std::string text;         // "ALARM1 of door, boiler"
};

Alarms readAlarms(const IniFile& file) {
    Alarms alarms;
    alarms.mask = evaluateAlarmMask(file);
    alarms.text = stateOfPins(pinValues[alarms.mask]);
    if (alarms.mask == 0) return alarms;
    const std::string key = alarms.text;
    std::deque<std::string> names;
    file.sectionNames(names);
    std::size_t raising = 0;
    for (const std::string& name : names) {
        if (!file.hasKey(name, alarmKeys[0]) && !file.hasKey(name, alarmKeys[1])) continue;
        ++alarms.sources;
        if (!file.hasKey(name, key)) continue;
        if (++raising <= maxSources) alarms.text += (raising == 1 ? " of " : ", ") + name;
    }
    if (raising > maxSources) {
        alarms.text += " and " + std::to_string(raising - maxSources) + " more";
    }
    return alarms;
}

// What everyone can do to the file, if the modes let others than those who may publish do anything.
// Where its directory is locked for changes, that counts too.
std::string exposure(const std::string& path, bool directoryIsLocked) {
    char real[PATH_MAX];
    const std::string folder = path.substr(0, path.rfind('/') + 1);
    if (!realpath(folder.c_str(), real)) return "";
    const std::string name = real;
    struct stat status = {};
    for (std::size_t end = 0; end != std::string::npos;) {
        end = name.find('/', end + 1);
        const std::string upTo = name.substr(0, end);
        const bool isLast = end == std::string::npos;
        if (stat(upTo.c_str(), &status) != 0) return "";
        const bool isPassable = (status.st_mode & S_IXOTH) != 0;
        if (isPassable && (status.st_mode & S_IWOTH) != 0 &&
            (isLast || (status.st_mode & S_ISVTX) == 0)) {
            return "everyone can write the directory " + upTo;
        }
        if (isLast && directoryIsLocked && (status.st_mode & S_IROTH) != 0) {
            return "everyone can lock the directory " + upTo;
        }
        if (!isPassable) return "";  // which protects all below it
    }
    if (stat(path.c_str(), &status) != 0) return "";
    if ((status.st_mode & S_IWOTH) != 0) return "everyone can write " + path;
    if ((status.st_mode & S_IROTH) != 0) return "everyone can lock " + path;
    return "";
}

// Whether another program keeps the file locked, for which the daemon waits.
bool isLocked(const std::string& path) {
    const int file = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const bool locked = flock(file, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    if (file >= 0) close(file);
    return locked;
}

Verdict lockedBy(const std::string& path) {
    return critical(path + " is locked, for which the daemon waits: end what locks it");
}

// The one daemon, or the verdict that there is none that works.
pid_t theDaemon(Verdict& verdict) {
    bool hidden = false;
    const std::vector<pid_t> daemons = findDaemons(hidden);
    if (daemons.empty()) {
        verdict = critical("the daemon does not run: start it, as by 'service pinwatchd start'");
        if (hidden) verdict = {pluginUnknown, "the daemon's process may not be looked at", "", ""};
        return 0;
    }
    const pid_t daemon = daemons.front();
    if (daemons.size() > 1) {
        std::string processes;
        for (const pid_t each : daemons) processes += " " + std::to_string(each);
        verdict =
            critical("more than one daemon runs, and they share the unit: end one (processes" +
                     processes + ")");
    } else if (isStopped(daemon)) {
        verdict = critical("the daemon is stopped: 'kill -CONT " + std::to_string(daemon) +
                           "', or restart it");
    } else {
        return daemon;
    }
    return 0;
}

// What weakens a lamp that shows what it should.
std::string warningsOf(pid_t daemon, const std::string& path, bool exists) {
    std::string warnings;
    if (!readsFile(daemon, path)) {
        warnings += "the daemon reads another file than " + path + ": restart it; ";
    }
    if (!exists) {
        warnings += "there is no file " + path +
                    ", so the unit keeps what it shows: 'pinwatchd-alarm clear --all' makes one; ";
    }
    for (const char* file : {path.c_str(), settingsPath, settingsOverlayPath}) {
        const std::string text = exposure(file, file == path.c_str());
        if (!text.empty()) warnings += text + "; ";
    }
    return warnings;
}

// Compares the unit that the daemon has open with the alarms file.
Verdict compare(pid_t daemon, const std::string& path, const struct stat* status) {
    const UsbDevice unit = openedDevice(daemon);
    if (unit.node.empty()) return noUnitOpen();
    tellStage(nameOf(unit) + " does not answer: replug it");
    const int pins = readPins(unit);
    if (pins < 0) {
        return critical("the pins of " + nameOf(unit) + " cannot be read (" + std::strerror(errno) +
                        "): replug it");
    }
    if (const unsigned unread = unreadEvents(daemon)) {
        Verdict hang = critical("the daemon hangs: restart it, and replug the unit");
        hang.moment = std::to_string(unread);  // in a flood of events it changes all the time
        return hang;
    }
    tellStage(path + " cannot be read: is it locked, or on a file system that hangs?");
    IniFile file("");
    if (status && !file.load(path)) {
        return critical(path + " cannot be read (" + std::strerror(errno) + ")");
    }
    const Alarms alarms = readAlarms(file);
    Verdict verdict;
    verdict.figures =
        "alarm=" + std::to_string(alarms.mask) + " sources=" + std::to_string(alarms.sources);
    const std::string warnings = warningsOf(daemon, path, status != nullptr);
    if (!status || pins == pinValues[alarms.mask]) {
        verdict.status = warnings.empty() ? pluginOk : pluginWarning;
        verdict.text =
            warnings + nameOf(unit) + " shows " + (status ? alarms.text : stateOfPins(pins));
        return verdict;
    }
    verdict.status = pluginCritical;
    verdict.text = warnings + nameOf(unit) + " shows " + stateOfPins(pins) + ", but " + path +
                   " raises " + alarms.text +
                   ": see the log; 'touch' the file, or restart the daemon";
    // Each version has its time to be shown.
    verdict.moment =
        std::to_string(status->st_mtim.tv_sec) + " " + std::to_string(status->st_mtim.tv_nsec);
    return verdict;
}

// What is seen at this moment, of the file that the settings name if the path is empty.
Verdict look(std::string path) {
    tellStage("the settings cannot be read: are they on a file system that hangs?");
    for (const char* settings : {settingsPath, settingsOverlayPath}) {
        if (isLocked(settings)) return lockedBy(settings);
    }
    if (path.empty()) path = alarmsPath(IniFile(settingsPath, settingsOverlayPath));
    tellStage(path + " cannot be looked at: is it on a file system that hangs?");
    struct stat status = {};
    const bool exists = stat(path.c_str(), &status) == 0;
    if (!exists && errno != ENOENT) {
        return critical(path + " cannot be looked at (" + std::strerror(errno) + ")");
    }
    if (exists && !S_ISREG(status.st_mode)) {
        return critical(path +
                        " is not a regular file: put one in its place, and restart the daemon");
    }
    if (isLocked(path)) return lockedBy(path);
    Verdict verdict;
    const pid_t daemon = theDaemon(verdict);
    return daemon == 0 ? verdict : compare(daemon, path, exists ? &status : nullptr);
}

// Reads lines until the other end is closed, and leaves the last one in `line`. False if that is
// not so by then.
bool readUntil(int channel, std::int64_t endMs, std::string& line) {
    std::string text;
    for (;;) {
        pollfd wait = {channel, POLLIN, 0};
        const std::int64_t leftMs = endMs - nowMs();
        if (leftMs <= 0) return false;
        if (poll(&wait, 1, static_cast<int>(leftMs)) <= 0) continue;
        char buffer[4096];
        const ssize_t length = read(channel, buffer, sizeof buffer);
        if (length <= 0) return length == 0;
        text.append(buffer, static_cast<std::size_t>(length));
        for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n')) {
            line = text.substr(0, end);
            text.erase(0, end + 1);
        }
    }
}

}  // namespace

std::string nameOf(const UsbDevice& device) { return device.product + " (" + device.node + ")"; }

std::int64_t nowMs() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

std::string pluginLine(const Verdict& verdict) {
    std::string text = printable(verdict.text);
    for (char& c : text) {
        if (c == '|') c = '?';
    }
    return std::string(statusNames[verdict.status]) + " - " + text +
           (verdict.figures.empty() ? "" : " | " + verdict.figures);
}

Verdict judge(const std::string& path) {
    wakeDaemons();
    Verdict last;
    std::int64_t since = 0;
    for (;;) {
        Verdict verdict = look(path);
        const std::int64_t now = nowMs();
        if (verdict.text != last.text || verdict.moment != last.moment) since = now;
        if (verdict.status != pluginCritical || now - since >= patienceMs) return verdict;
        last = verdict;
        nanosleep(&nap, nullptr);
    }
}

void awaitShown(const std::string& path, std::int64_t ms) {
    const std::int64_t end = nowMs() + ms;
    bool hidden = false;
    const std::vector<pid_t> daemons = findDaemons(hidden);
    while (nowMs() < end) {
        const UsbDevice unit = daemons.empty() ? UsbDevice() : openedDevice(daemons.front());
        if (!unit.node.empty() && readPins(unit) == pinValues[evaluateAlarmMask(IniFile(path))])
            return;
        nanosleep(&shortNap, nullptr);
    }
}

int check(const std::string& path, unsigned seconds, bool quiet) {
    // What hangs, in the kernel perhaps, where no signal helps, hangs in a process of its own.
    int channel[2];
    const pid_t child = pipe(channel) == 0 ? fork() : -1;
    if (child < 0) {
        std::printf("UNKNOWN - %s\n", std::strerror(errno));
        return pluginUnknown;
    }
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        tellStage = [&channel](const std::string& stage) {
            const std::string line = printable(stage) + "\n";
            if (write(channel[1], line.data(), line.size()) < 0) _exit(pluginUnknown);
        };
        const Verdict verdict = judge(path);
        tellStage(pluginLine(verdict));
        _exit(verdict.status);
    }
    close(channel[1]);
    std::string told;
    int status = 0;
    if (!readUntil(channel[0], nowMs() + std::int64_t{1000} * seconds, told)) {
        kill(child, SIGKILL);
        std::printf("CRITICAL - %s\n", told.c_str());
        return pluginCritical;
    }
    waitpid(child, &status, 0);
    status = WIFEXITED(status) ? WEXITSTATUS(status) : pluginUnknown;
    if (status != pluginOk || !quiet) std::puts(told.c_str());
    return status;
}
