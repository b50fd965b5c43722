// The C library's calls that the daemon makes of the system.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <utility>

#include "life.h"
#include "settings.h"

Files files;
Process process;

namespace {

constexpr int socketNumber = 3;
constexpr int fileNumber = 4;

// The open file, for the daemon has one at a time: one of the disk, or an attribute in sysfs.
struct OpenFile {
    const File* file = nullptr;
    DevicePointer device;
    std::string name;
    std::string text;
    std::size_t position = 0;
    bool filled = false;
} opened;

const File* findFile(const std::string& path) {
    if (path == settingsPath) return &files.settings;
    return path == "/tmp/orvel/data/alarms" && files.alarms.time != 0 ? &files.alarms : nullptr;
}

DevicePointer findDevice(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    for (const DevicePointer& device : kernel.devices) {
        if (device->inSysfs && path.compare(0, slash, "/sys" + device->port->path) == 0)
            return device;
    }
    return nullptr;
}

// A document that was emptied when its time could not be had, and then could not be read, is not
// read again before the file has another time.
bool alarmsTimeFailed = false;

void spoilOpened() {
    if (opened.device) ++opened.device->spoilt;
    if (opened.file == &files.alarms && alarmsTimeFailed) files.shown = files.written | 1;
}

int openFile(const std::string& path, bool fails) {
    if (process.fileOpen) world.fail("a file is left open");
    opened = {};
    opened.file = findFile(path);
    opened.device = opened.file ? nullptr : findDevice(path);
    opened.name = path.substr(path.rfind('/') + 1);
    if (!opened.file && !opened.device) return Call::failure(ENOENT);
    if (fails) {
        spoilOpened();
        return Call::failure(EMFILE);
    }
    process.fileOpen = true;
    return fileNumber;
}

// The attribute's text is made when it is read, if it is still there (kernfs). That of
// bConfigurationValue waits for the device's lock (bConfigurationValue_show).
ssize_t readFile(const Call& call, char* buffer, size_t size) {
    if (!std::exchange(opened.filled, true)) {
        if (opened.file) {
            opened.text = opened.file->text;
        } else if (opened.name == "bConfigurationValue") {
            Kernel::lockDevice(opened.device);
            opened.text = opened.device->configured ? "1\n" : "";
        } else {
            const Unit& unit = *opened.device->unit;
            const int id = opened.name == "idVendor" ? unit.vendor : unit.product;
            char text[8];
            std::snprintf(text, sizeof text, "%04x\n", static_cast<unsigned>(id));
            opened.text = text;
        }
        if (opened.device && !opened.device->inSysfs) return Call::failure(ENODEV);
    }
    if (call.fails) return Call::failure(EIO);
    const std::size_t length = std::min(size, opened.text.size() - opened.position);
    std::memcpy(buffer, opened.text.data() + opened.position, length);
    opened.position += length;
    return static_cast<ssize_t>(length);
}

ssize_t readStream(void*, char* buffer, size_t size) {
    const Call call("fread");
    if (call.fails) spoilOpened();
    return readFile(call, buffer, size);
}

int closeStream(void*) {
    const Call call("fclose");
    process.fileOpen = false;
    return 0;
}

int socketCall(const char* name, int result) {
    const Call call(name);
    if (!call.fails) return result;
    rules.socket = false;
    return Call::failure(EMFILE);
}

}  // namespace

Call::Call(const char* name, Time least, Time most) {
    ++rules.calls;
    int& spoils = rules.spoils[name];
    fails = spoils > 0;
    if (fails) world.note("        %s fails", name);
    if (fails) --spoils;
    world.pass(world.once(100) ? world.between(millisecond, 10 * millisecond)
                               : world.between(least, most));
}

Call::~Call() {
    const int error = errno;
    process.deliver(false);
    errno = error;
}

int Call::failure(int error) {
    errno = error;
    return -1;
}

void Process::deliver(bool inWait) {
    if (pendingSignal == 0 || blocked || !handler) return;
    const int signalNumber = std::exchange(pendingSignal, 0);
    world.note("        signal %d", signalNumber);
    rules.stoppedInWait = rules.stoppedInWait || inWait;
    handler(signalNumber);
}

extern "C" {

int socket(int, int, int) {
    const int result = socketCall("socket", socketNumber);
    process.socketOpen = result >= 0;
    return result;
}

int setsockopt(int, int, int, const void*, socklen_t) { return socketCall("setsockopt", 0); }

int bind(int, const sockaddr*, socklen_t) {
    const int result = socketCall("bind", 0);
    kernel.isBound = result == 0;
    return result;
}

ssize_t recv(int, void* buffer, size_t size, int flags) {
    const Call call("recv");
    if (!kernel.isReadable() || flags != 0) world.fail("recv would wait");
    return call.fails ? Call::failure(EINTR) : kernel.receive(static_cast<char*>(buffer), size);
}

int pselect(int, fd_set* readable, fd_set*, fd_set*, const timespec* limit, const sigset_t* mask) {
    const Call call("pselect");
    process.deliver(false);  // before the wait begins, unless it is held back
    if (mask) process.blocked = sigismember(mask, SIGTERM) == 1;
    const auto isStopped = [] { return process.pendingSignal != 0 && !process.blocked; };
    const auto isReadable = [&] { return readable && kernel.isReadable(); };
    const Time duration = limit ? limit->tv_sec * second + limit->tv_nsec : never;
    // Another signal may interrupt a wait, but not what need not wait.
    const bool interrupted = call.fails && !isReadable();
    if (!interrupted && !isReadable()) {
        world.wait([&] { return isReadable() || isStopped(); }, duration);
        world.pass(microsecond);  // if the process is stopped, it returns after that
    }
    const bool stopped = isStopped();
    process.deliver(duration > 0);
    process.blocked = true;
    if (interrupted || stopped) return Call::failure(EINTR);
    if (readable && !isReadable()) FD_ZERO(readable);
    return isReadable() ? 1 : 0;
}

int sigprocmask(int how, const sigset_t* mask, sigset_t* old) {
    if (old) sigemptyset(old);
    const Call call("sigprocmask");
    if (mask) process.blocked = how == SIG_BLOCK;
    return 0;
}

sighandler_t signal(int, sighandler_t handler) {
    process.handler = handler;
    return SIG_DFL;
}

// Only SIGPIPE to the daemon itself, which ignores it.
int kill(pid_t, int) { return 0; }

int clock_gettime(clockid_t, timespec* time) {
    const Call call("clock_gettime");
    time->tv_sec = world.now / second + 1000;
    time->tv_nsec = static_cast<long>(world.now % second);
    return 0;
}

int stat(const char* path, struct stat* status) {
    if (!worldBegan) return Call::failure(ENOENT);
    const Call call("stat");
    const File* file = findFile(path);
    if (file == &files.alarms) alarmsTimeFailed = call.fails;
    if (call.fails || !file) return Call::failure(call.fails ? EACCES : ENOENT);
    status->st_mtime = file->time;
    return 0;
}

int access(const char* path, int) {
    const Call call("access");
    const std::string text(path);
    if (text.compare(0, kernel.nodes.size(), kernel.nodes) == 0) {
        const std::string node = text.substr(kernel.nodes.size());
        if (node == "001" || node == "002" || kernel.find(node)) return 0;
        rules.searches += 2;  // its device may have come unheard again
        return Call::failure(ENOENT);
    }
    const DevicePointer device = findDevice(text);
    if (device && call.fails) ++device->spoilt;
    return device && !call.fails ? 0 : Call::failure(ENOENT);
}

int open(const char* path, int, ...) {
    const Call call("open");
    return openFile(path, call.fails);
}

ssize_t read(int, void* buffer, size_t size) {
    const Call call("read");
    return readFile(call, static_cast<char*>(buffer), size);
}

int close(int file) {
    const Call call("close");
    bool& isOpen = file == socketNumber ? process.socketOpen : process.fileOpen;
    if (!std::exchange(isOpen, false)) world.fail("closed twice");
    if (file == socketNumber) kernel.closeSocket();
    return 0;
}

FILE* fopen(const char* path, const char* mode) {
    const Call call("fopen");
    if (openFile(path, call.fails) < 0) return nullptr;
    return fopencookie(nullptr, mode, {readStream, nullptr, nullptr, closeStream});
}

int fileno(FILE*) { return fileNumber; }

int flock(int, int operation) {
    const Call call("flock");
    if (operation == LOCK_UN) return 0;
    if (call.fails) return Call::failure(ENOLCK);
    world.wait([] { return !opened.file->locked; });
    return 0;
}

void vsyslog(int priority, const char* text, va_list arguments) {
    char line[400];
    vsnprintf(line, sizeof line, text, arguments);
    world.note("<%d> %s", priority, line);
    rules.logged(text, line);
}

int setlogmask(int) {
    rules.countsLines = false;
    return 0;
}
}
