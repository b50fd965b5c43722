// The C library's calls that the daemon makes of the system. Each takes some time, in which the
// world goes on.

#include <fcntl.h>
#include <linux/netlink.h>
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
#include <cstdlib>
#include <cstring>
#include <map>
#include <utility>

#include "files.h"
#include "kernel.h"
#include "rules.h"
#include "settings.h"
#include "system.h"

System* daemonSystem = nullptr;

namespace {

constexpr int socketNumber = 3;
constexpr const char* sysfs = "/sys";

// An open file: one of the disk, or an attribute in sysfs.
struct OpenFile {
    const File* file = nullptr;
    DevicePointer device;
    std::string text;
    std::size_t position = 0;
    bool atEnd = false;
};

std::map<int, OpenFile> openFiles;

// A call of the daemon. A stop signal that comes meanwhile is handled before it returns.
struct Call : Outside {
    explicit Call(const char* name) : fails(rules && rules->spoil(name)) {
        if (!world) return;
        rules->called();
        world->pass(world->once(100) ? world->between(millisecond, 10 * millisecond)
                                     : world->between(microsecond, 20 * microsecond));
    }
    ~Call() {
        const int error = errno;
        if (daemonSystem) daemonSystem->deliver(false);
        errno = error;
    }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    int failure(int error) const {
        errno = error;
        return -1;
    }

    const bool fails;
};

// Finds what the path names: sets the device, for an attribute in sysfs, and the attribute's name.
DevicePointer attribute(const std::string& path, std::string& name) {
    const std::size_t slash = path.rfind('/');
    name = path.substr(slash + 1);
    for (const DevicePointer& device : kernel->devices) {
        if (device->inSysfs && path.compare(0, slash, sysfs + device->path) == 0) return device;
    }
    return nullptr;
}

std::string attributeText(const Device& device, const std::string& name) {
    char text[8];
    std::snprintf(
        text, sizeof text, "%04x\n",
        static_cast<unsigned>(name == "idVendor" ? device.unit->vendor : device.unit->product));
    if (name != "bConfigurationValue") return text;
    return device.configured ? "1\n" : "";
}

int openFile(const std::string& path, bool fails, int error) {
    OpenFile opened;
    opened.file = files->find(path);
    if (opened.file) {
        if (!opened.file->readable) error = EACCES;
        fails = fails || !opened.file->readable;
        opened.text = opened.file->text;
    } else {
        std::string name;
        opened.device = attribute(path, name);
        if (!opened.device) {
            errno = ENOENT;
            return -1;
        }
        opened.text = name;
        if (fails) ++opened.device->spoilt;
    }
    if (fails) {
        errno = error;
        return -1;
    }
    int number = socketNumber + 1;
    while (openFiles.count(number) > 0) ++number;
    openFiles[number] = opened;
    return number;
}

// The attribute's text is made when it is read, if it is still there (kernfs). That of
// bConfigurationValue waits for the device's lock (bConfigurationValue_show).
bool readAttribute(OpenFile& file) {
    if (!file.device) return true;
    const DevicePointer device = std::move(file.device);
    if (file.text == "bConfigurationValue") Kernel::lockDevice(device);
    if (!device->inSysfs) {
        errno = ENODEV;
        return false;
    }
    file.text = attributeText(*device, file.text);
    return true;
}

int number(FILE* file) { return static_cast<int>(reinterpret_cast<std::intptr_t>(file)); }

}  // namespace

void System::deliver(bool inWait) {
    if (pendingSignal == 0 || blocked || !handler) return;
    const int signalNumber = std::exchange(pendingSignal, 0);
    world->note("        signal %d", signalNumber);
    rules->stopDelivered(inWait);
    handler(signalNumber);
}

void System::checkClosed() const {
    if (socketOpen || !openFiles.empty()) world->fail("a file is left open");
}

extern "C" {

int socket(int, int, int) {
    const Call call("socket");
    if (call.fails) {
        rules->socketFailed();
        return call.failure(EMFILE);
    }
    daemonSystem->socketOpen = true;
    return socketNumber;
}

int setsockopt(int, int, int, const void*, socklen_t) {
    const Call call("setsockopt");
    if (call.fails) rules->socketFailed();
    return call.fails ? call.failure(ENOBUFS) : 0;
}

int bind(int, const sockaddr*, socklen_t) {
    const Call call("bind");
    if (call.fails) {
        rules->socketFailed();
        return call.failure(EADDRINUSE);
    }
    kernel->isBound = true;
    return 0;
}

ssize_t recv(int, void* buffer, size_t size, int flags) {
    const Call call("recv");
    if (!kernel->isReadable() || flags != 0) world->fail("recv would wait");
    if (call.fails) return call.failure(EINTR);
    return kernel->receive(static_cast<char*>(buffer), size);
}

int pselect(int, fd_set* readable, fd_set*, fd_set*, const timespec* limit, const sigset_t* mask) {
    const Call call("pselect");
    rules->waited();
    daemonSystem->blocked = mask && sigismember(mask, SIGTERM) == 1;
    // Another signal may interrupt a wait, but not what need not wait.
    const bool wasReadable = readable && kernel->isReadable();
    const Time duration = limit ? limit->tv_sec * second + limit->tv_nsec : never;
    const bool interrupted = call.fails && !wasReadable;
    if (!wasReadable && !interrupted) {
        world->wait(
            [&] { return (readable && kernel->isReadable()) || daemonSystem->pendingSignal != 0; },
            duration);
        world->pass(microsecond);  // if the process is stopped, it returns after that
    }
    const bool stopped = daemonSystem->pendingSignal != 0;
    daemonSystem->deliver(duration > 0);
    daemonSystem->blocked = true;
    if (interrupted || stopped) return call.failure(EINTR);
    const bool isReadable = readable && kernel->isReadable();
    if (readable && !isReadable) FD_ZERO(readable);
    return isReadable ? 1 : 0;
}

int sigprocmask(int how, const sigset_t* set, sigset_t* old) {
    if (old) {
        sigemptyset(old);
        if (daemonSystem->blocked) sigaddset(old, SIGTERM);
    }
    const Call call("sigprocmask");
    const bool named = sigismember(set, SIGTERM) == 1;
    daemonSystem->blocked = how == SIG_BLOCK ? daemonSystem->blocked || named : named;
    return 0;
}

sighandler_t signal(int, sighandler_t handler) {
    daemonSystem->handler = handler;
    return SIG_DFL;
}

// Only SIGPIPE to the daemon itself, which ignores it.
int kill(pid_t, int) { return 0; }

int clock_gettime(clockid_t, timespec* time) {
    const Call call("clock_gettime");
    time->tv_sec = world->now / second + 1000;
    time->tv_nsec = world->now % second;
    return 0;
}

int stat(const char* path, struct stat* status) {
    if (!world) {
        errno = ENOENT;
        return -1;
    }
    const Call call("stat");
    const std::string name(path);
    if (name == settingsPath) rules->cycle();
    if (call.fails) return call.failure(EACCES);
    const File* file = files->find(name);
    if (!file) return call.failure(ENOENT);
    status->st_mtime = file->time;
    return 0;
}

int access(const char* path, int) {
    const Call call("access");
    const std::string text(path);
    std::string name;
    bool there = false;
    if (text.compare(0, kernel->nodes.size(), kernel->nodes) == 0) {
        const std::string node = text.substr(kernel->nodes.size());
        there = node == "001" || node == "002" || kernel->find(node);
        if (!there) rules->nodeMissed();
    } else {
        const DevicePointer device = attribute(text, name);
        there = device && !call.fails;
        if (device && call.fails) ++device->spoilt;
    }
    return there ? 0 : call.failure(ENOENT);
}

int open(const char* path, int, ...) {
    const Call call("open");
    return openFile(path, call.fails, EMFILE);
}

ssize_t read(int file, void* buffer, size_t size) {
    const Call call("read");
    OpenFile& opened = openFiles.at(file);
    if (!readAttribute(opened)) return -1;
    if (call.fails) return call.failure(EINTR);
    const std::size_t length = std::min(size, opened.text.size() - opened.position);
    std::memcpy(buffer, opened.text.data() + opened.position, length);
    opened.position += length;
    return static_cast<ssize_t>(length);
}

int close(int file) {
    const Call call("close");
    if (file == socketNumber) {
        if (!std::exchange(daemonSystem->socketOpen, false)) world->fail("closed twice");
        kernel->closeSocket();
    } else if (openFiles.erase(file) == 0) {
        world->fail("closed twice");
    }
    return 0;
}

FILE* fopen(const char* path, const char*) {
    const Call call("fopen");
    const int file = openFile(path, call.fails, EMFILE);
    return file < 0 ? nullptr : reinterpret_cast<FILE*>(std::intptr_t{file});
}

int fileno(FILE* file) { return number(file); }

int flock(int file, int operation) {
    const Call call("flock");
    const OpenFile& opened = openFiles.at(file);
    if (operation == LOCK_UN) return 0;
    if (call.fails) return call.failure(ENOLCK);
    world->wait([&] { return !opened.file->locked; });
    openFiles[file].text = opened.file->text;
    return 0;
}

char* fgets(char* buffer, int size, FILE* file) {
    const Call call("fgets");
    OpenFile& opened = openFiles.at(number(file));
    if (call.fails) return nullptr;
    const std::string& text = opened.text;
    opened.atEnd = opened.position == text.size();
    if (opened.atEnd) return nullptr;
    const std::size_t feed = text.find('\n', opened.position);
    const std::size_t lineEnd = feed == std::string::npos ? text.size() : feed + 1;
    const std::size_t length =
        std::min(lineEnd - opened.position, static_cast<std::size_t>(size) - 1);
    std::memcpy(buffer, text.data() + opened.position, length);
    buffer[length] = '\0';
    opened.position += length;
    return buffer;
}

int feof(FILE* file) { return openFiles.at(number(file)).atEnd ? 1 : 0; }

ssize_t getdelim(char** line, size_t* capacity, int, FILE* file) {
    const Call call("getdelim");
    OpenFile& opened = openFiles.at(number(file));
    if (call.fails && opened.device) {
        ++opened.device->spoilt;
        return call.failure(EIO);
    }
    if (!readAttribute(opened) || opened.text.empty()) return -1;
    *capacity = opened.text.size() + 1;
    *line = static_cast<char*>(std::realloc(*line, *capacity));
    std::memcpy(*line, opened.text.c_str(), *capacity);
    return static_cast<ssize_t>(opened.text.size());
}

int fclose(FILE* file) {
    const Call call("fclose");
    return openFiles.erase(number(file)) == 1 ? 0 : EOF;
}

void vsyslog(int priority, const char* text, va_list arguments) {
    const Outside outside;
    if ((LOG_MASK(LOG_PRI(priority)) & daemonSystem->logMask) == 0) return;
    char line[400];
    vsnprintf(line, sizeof line, text, arguments);
    world->note("<%d> %s", priority, line);
    rules->logged(text, line);
}

void openlog(const char*, int, int) {}

void closelog() {}

int setlogmask(int mask) {
    rules->levelChanged();
    daemonSystem->logMask = mask;
    return 0;
}

int isatty(int) { return 0; }
}
