#include "ueventmonitor.h"

#include <linux/netlink.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "conversions.h"
#include "daemonstate.h"
#include "logger.h"

namespace {

constexpr int socketBufferSize = 1024;
constexpr std::size_t datagramSize = 2048;  // the kernel's own limit, UEVENT_BUFFER_SIZE
constexpr unsigned ueventGroup = 1;         // the kernel's broadcasts; udev's have group 2
constexpr timespec oneSecond = {1, 0};
constexpr timespec noWait = {0, 0};

// A burst of events is over when nothing has come for so long from a device that the kernel has
// enumerated, and in any case at its limits: of time, and of what is read or kept.
constexpr timespec burstGap = {0, 50'000'000};
constexpr std::int64_t burstLimitMs = 300;
constexpr std::size_t maxKept = 64;

constexpr std::int64_t searchPaceMs = 1000;

timespec now() {
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time;
}

std::int64_t millisecondsSince(const timespec& start) {
    const timespec time = now();
    return std::int64_t{time.tv_sec - start.tv_sec} * 1000 +
           (time.tv_nsec - start.tv_nsec) / 1'000'000;
}

int openSocket() {
    int fd = socket(AF_NETLINK, SOCK_RAW, NETLINK_KOBJECT_UEVENT);
    if (fd >= FD_SETSIZE) {  // select's sets have no place for it
        close(fd);
        fd = -1;
        errno = EMFILE;
    }
    if (fd < 0) {
        // __extension__: "%m" is syslog's, not the C++ standard's.
        __extension__ logError("create socket: %m");
        return -1;
    }
    const int bufferSize = socketBufferSize;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bufferSize, sizeof bufferSize) < 0) {
        __extension__ logError("set socket options: %m");
        close(fd);
        return -1;
    }
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_pid = static_cast<unsigned>(getpid());
    address.nl_groups = ueventGroup;
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
        __extension__ logError("bind socket: %m");
        close(fd);
        return -1;
    }
    return fd;
}

// pselect for reading, without time limit if `limit` is null. The stop signals are held back
// from the test of their flag to the wait itself, so that none goes unseen between the two.
int waitUnlessStopped(int count, fd_set* readable, const timespec* limit) {
    sigset_t blocked;
    sigset_t previous;
    sigemptyset(&blocked);
    for (const int signalNumber : stopSignals) sigaddset(&blocked, signalNumber);
    sigprocmask(SIG_BLOCK, &blocked, &previous);
    if (DaemonState::stopRequested) limit = &noWait;
    const int result = pselect(count, readable, nullptr, nullptr, limit, &previous);
    sigprocmask(SIG_SETMASK, &previous, nullptr);
    return result;
}

}  // namespace

std::string readFirstLine(const std::string& path) {
    std::string line;
    char* buffer = nullptr;
    std::size_t capacity = 0;
    std::FILE* file = std::fopen(path.c_str(), "r");
    if (file) errno = 0;  // an empty file sets none
    if (file && getdelim(&buffer, &capacity, '\n', file) >= 0) {
        line = buffer;
        if (!line.empty() && line.back() == '\n') line.pop_back();
    } else {
        logError("read file error: %s: %s", path.c_str(), std::strerror(errno));
    }
    std::free(buffer);
    if (file) std::fclose(file);
    return line;
}

UeventMonitor::UeventMonitor() : fd(openSocket()), lastSearch(now()) {}

UeventMonitor::~UeventMonitor() {
    if (fd >= 0) close(fd);
}

bool UeventMonitor::waitForDevice(int vendorId, int productId) {
    return readEvent(vendorId, productId, "");
}

bool UeventMonitor::checkRemoved(const std::string& watchedPath) {
    return readEvent(0, 0, watchedPath);
}

void UeventMonitor::pauseWithoutSocket() const {
    if (fd < 0) waitUnlessStopped(0, nullptr, &oneSecond);
}

bool UeventMonitor::takeUnitThatStays() {
    if (!reportedRemoval) return false;
    const Uevent event = *std::exchange(reportedRemoval, std::nullopt);
    if (event.action == "remove" || !event.deviceExists()) return false;
    added = true;
    nodePath = event.nodePath();
    arrival = event;
    logDebug2("USB device %s is still attached after '%s'", nodePath.c_str(),
              event.action.value_or("").c_str());
    return true;
}

void UeventMonitor::passBurst() {
    const timespec start = now();
    bool over = false;
    for (std::size_t tries = 0; tries < maxKept && kept.size() < maxKept; ++tries) {
        const bool came = readAhead(nodePath, over ? &noWait : &burstGap);
        if (over && !came) return;
        over = over || (!came && arrival.deviceIsConfigured()) ||
               millisecondsSince(start) >= burstLimitMs;
    }
}

void UeventMonitor::passBurstOf(const std::string& path) {
    for (std::size_t tries = 0; tries < maxKept && kept.size() < maxKept; ++tries) {
        if (!readAhead(path, &noWait)) return;
    }
}

// Takes one datagram off the socket, for later unless it only goes on about the arrival of the
// unit at `path`. False when none comes within the limit.
bool UeventMonitor::readAhead(const std::string& path, const timespec* limit) {
    if (!waitReadable(limit)) return false;
    std::string datagram = receive();
    const Uevent event = parseUevent(datagram.data(), datagram.size());
    const bool changesNothing = event.usbDevice && event.action && *event.action != "add" &&
                                *event.action != "remove" && event.nodePath() == path &&
                                event.deviceExists();
    if (!datagram.empty() && !changesNothing) kept.push_back(std::move(datagram));
    return true;
}

bool UeventMonitor::isQueueEmpty() const { return kept.empty() && !waitReadable(&noWait); }

bool UeventMonitor::mustLook() const { return fd < 0 || (missed && isQueueEmpty()); }

bool UeventMonitor::claimSearch() {
    if (!mustLook() || millisecondsSince(lastSearch) < searchPaceMs) return false;
    lastSearch = now();
    missed = false;
    return true;
}

bool UeventMonitor::waitReadable(const timespec* limit) const {
    if (fd < 0) return false;
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    return waitUnlessStopped(fd + 1, &readable, limit) > 0 && FD_ISSET(fd, &readable);
}

// Takes the next datagram off the socket; empty on any failure.
std::string UeventMonitor::receive() {
    char datagram[datagramSize] = {};
    const ssize_t length = recv(fd, datagram, datagramSize, 0);
    received = true;
    // ENOBUFS is reported once for all that is dropped until the queue is empty (netlink(7)).
    if (length < 0 && errno == ENOBUFS) missed = true;
    return length > 0 ? std::string(datagram, static_cast<std::size_t>(length)) : std::string();
}

bool UeventMonitor::readEvent(int vendorId, int productId, const std::string& watchedPath) {
    logDebug3("wait for vid=%04X, pid=%04X, node='%s'", static_cast<unsigned>(vendorId),
              static_cast<unsigned>(productId), watchedPath.c_str());
    std::string datagram;
    if (!kept.empty()) {
        datagram = std::move(kept.front());
        kept.pop_front();
    } else {
        const bool endless = watchedPath.empty() && !missed;
        if (!waitReadable(endless ? nullptr : &oneSecond)) return false;
        datagram = receive();
    }
    return !datagram.empty() && handleDatagram(datagram, vendorId, productId, watchedPath);
}

bool UeventMonitor::handleDatagram(const std::string& datagram, int vendorId, int productId,
                                   const std::string& watchedPath) {
    const Uevent event = parseUevent(datagram.data(), datagram.size());
    if (event.action) added = *event.action == "add";
    if (!event.usbDevice) {
        logDebug2("device is not 'usb_device'");
        return false;
    }
    if (event.busNumber.empty() || event.deviceNumber.empty()) {
        logDebug2("can't get device node path");
        return false;
    }
    const std::string eventPath = event.nodePath();
    logDebug3("got USB device: node=%s", eventPath.c_str());

    if (!added) {
        logDebug2("udev: FTDI USB device (%s) removed", eventPath.c_str());
        if (eventPath != watchedPath) return false;
        reportedRemoval = event;
        return true;
    }

    const std::string vendorText = readFirstLine(event.sysfsDirectory + "/idVendor");
    const std::string productText = readFirstLine(event.sysfsDirectory + "/idProduct");
    logDebug2("USB device VID/PID: %s:%s", vendorText.c_str(), productText.c_str());
    int vendor = 0;
    int product = 0;
    if (!toInt(vendorText, vendor, 16) || !toInt(productText, product, 16)) {
        logError("can't get USB device VID/PID (%s/%s)", vendorText.c_str(), productText.c_str());
        return false;
    }
    if (vendor != vendorId || product != productId) return false;
    logDebug2("udev: FTDI USB device (%04X:%04X) inserted", static_cast<unsigned>(vendorId),
              static_cast<unsigned>(productId));
    nodePath = eventPath;
    arrival = event;
    return true;
}
