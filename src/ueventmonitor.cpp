#include "ueventmonitor.h"

#include <linux/netlink.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
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

// How long the kernel is given to enumerate a unit, and how often it is asked meanwhile.
constexpr std::int64_t settleLimitMs = 300;
constexpr timespec settlePace = {0, 20'000'000};

constexpr std::size_t maxBacklog = 64;
constexpr std::int64_t rescanPaceMs = 1000;

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

UeventMonitor::UeventMonitor() : fd(openSocket()), lastRescan(now()) {}

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

void UeventMonitor::settle() {
    const timespec start = now();
    while (!DaemonState::stopRequested && !arrival.deviceIsConfigured() &&
           millisecondsSince(start) < settleLimitMs && backlog.size() < maxBacklog) {
        keepNext(&settlePace);
    }
}

void UeventMonitor::keepArrivalBacklog() {
    // Events may come without end.
    for (std::size_t tries = 0; tries < maxBacklog && backlog.size() < maxBacklog; ++tries) {
        if (!keepNext(&noWait)) break;
    }
}

bool UeventMonitor::tellsOfArrival() const { return eventIsOfArrival && event.deviceStays(); }

bool UeventMonitor::takeStayingUnit() {
    if (!std::exchange(removalReported, false) || !event.deviceStays()) return false;
    added = true;
    nodePath = event.nodePath();
    arrival = event;
    logDebug2("USB device %s is still attached after '%s'", nodePath.c_str(),
              event.action.value_or("").c_str());
    return true;
}

bool UeventMonitor::takeHeard() { return std::exchange(heard, false) || fd < 0; }

bool UeventMonitor::takeOverrun(bool suspected) {
    const bool due = (overrun || suspected) && backlog.empty() && !waitReadable(&noWait);
    if (fd >= 0 && !due) return false;
    overrun = false;
    return true;
}

void UeventMonitor::requestRescan() { overrun = true; }

bool UeventMonitor::claimRescan() {
    if (millisecondsSince(lastRescan) < rescanPaceMs || !takeOverrun(false)) return false;
    lastRescan = now();
    return true;
}

bool UeventMonitor::waitReadable(const timespec* limit) const {
    if (fd < 0) return false;
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    return waitUnlessStopped(fd + 1, &readable, limit) > 0 && FD_ISSET(fd, &readable);
}

// Takes one event off the socket into the backlog. False when none comes within the limit.
bool UeventMonitor::keepNext(const timespec* limit) {
    if (!waitReadable(limit)) return false;
    std::optional<Uevent> next = receive();
    if (next) backlog.push_back(std::move(*next));
    return true;
}

// Takes the next event off the socket; none on any failure.
std::optional<Uevent> UeventMonitor::receive() {
    char datagram[datagramSize] = {};
    const ssize_t length = recv(fd, datagram, datagramSize, 0);
    heard = true;
    // ENOBUFS is reported once for all that is dropped until the queue is empty (netlink(7)).
    if (length < 0 && errno == ENOBUFS) overrun = true;
    if (length <= 0) return std::nullopt;
    return parseUevent(datagram, static_cast<std::size_t>(length));
}

bool UeventMonitor::readEvent(int vendorId, int productId, const std::string& watchedPath) {
    logDebug3("wait for vid=%04X, pid=%04X, node='%s'", static_cast<unsigned>(vendorId),
              static_cast<unsigned>(productId), watchedPath.c_str());
    event = Uevent();
    eventIsOfArrival = removalReported = false;
    if (!backlog.empty()) {
        event = std::move(backlog.front());
        backlog.pop_front();
        eventIsOfArrival = true;
    } else {
        const bool endless = watchedPath.empty() && !overrun;
        if (!waitReadable(endless ? nullptr : &oneSecond)) return false;
        std::optional<Uevent> next = receive();
        if (!next) return false;
        event = std::move(*next);
    }
    return handleEvent(vendorId, productId, watchedPath);
}

bool UeventMonitor::handleEvent(int vendorId, int productId, const std::string& watchedPath) {
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
        removalReported = eventPath == watchedPath;
        return removalReported;
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
