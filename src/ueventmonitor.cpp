#include "ueventmonitor.h"

#include <linux/netlink.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "conversions.h"
#include "daemonstate.h"
#include "logger.h"

namespace {

constexpr int socketBufferSize = 1024;
constexpr std::size_t datagramSize = 2048;  // the kernel's own limit, UEVENT_BUFFER_SIZE
constexpr unsigned ueventGroup = 1;         // the kernel's broadcasts; udev's have group 2
constexpr timespec oneSecond = {1, 0};
constexpr timespec noWait = {0, 0};

int openSocket() {
    const int fd = socket(AF_NETLINK, SOCK_RAW, NETLINK_KOBJECT_UEVENT);
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
    std::FILE* file = std::fopen(path.c_str(), "r");
    if (!file) {
        logError("read file error: %s: %s", path.c_str(), std::strerror(errno));
        return "";
    }
    char* buffer = nullptr;
    std::size_t capacity = 0;
    errno = 0;  // an empty file sets none
    if (getdelim(&buffer, &capacity, '\n', file) < 0) {
        const char* reason = std::strerror(errno);
        std::free(buffer);
        std::fclose(file);
        logError("read file error: %s: %s", path.c_str(), reason);
        return "";
    }
    std::string line = buffer;
    std::free(buffer);
    std::fclose(file);
    if (!line.empty() && line.back() == '\n') line.pop_back();
    return line;
}

UeventMonitor::UeventMonitor() : fd(openSocket()) {}

UeventMonitor::~UeventMonitor() {
    if (fd >= 0) close(fd);
}

void UeventMonitor::pause() const { waitUnlessStopped(0, nullptr, &oneSecond); }

bool UeventMonitor::waitForDevice(int vendorId, int productId) {
    return readEvent(vendorId, productId, "");
}

bool UeventMonitor::checkRemoved(const std::string& watchedPath) {
    return readEvent(0, 0, watchedPath);
}

bool UeventMonitor::deviceStays() {
    if (lastEvent.action == "remove") return false;
    if (access((lastEvent.sysfsDirectory + "/idVendor").c_str(), F_OK) != 0) return false;
    added = true;
    nodePath = lastEvent.busNumber + "/" + lastEvent.deviceNumber;
    logDebug2("USB device %s is still attached after '%s'", nodePath.c_str(),
              lastEvent.action.value_or("").c_str());
    return true;
}

bool UeventMonitor::eventsWereLost() {
    if (!lost || waitReadable(&noWait)) return false;
    lost = false;
    return true;
}

bool UeventMonitor::waitReadable(const timespec* limit) const {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    return waitUnlessStopped(fd + 1, &readable, limit) > 0 && FD_ISSET(fd, &readable);
}

bool UeventMonitor::readEvent(int vendorId, int productId, const std::string& watchedPath) {
    logDebug3("wait for vid=%04X, pid=%04X, node='%s'", static_cast<unsigned>(vendorId),
              static_cast<unsigned>(productId), watchedPath.c_str());
    if (fd < 0) return false;
    if (!waitReadable(watchedPath.empty() ? nullptr : &oneSecond)) return false;

    char datagram[datagramSize] = {};
    const ssize_t length = recv(fd, datagram, datagramSize, 0);
    // ENOBUFS is reported once for all that is dropped until the queue is empty (netlink(7)).
    if (length < 0 && errno == ENOBUFS) lost = true;
    if (length <= 0) return false;
    return handleDatagram(datagram, static_cast<std::size_t>(length), vendorId, productId,
                          watchedPath);
}

bool UeventMonitor::handleDatagram(const char* datagram, std::size_t length, int vendorId,
                                   int productId, const std::string& watchedPath) {
    lastEvent = parseUevent(datagram, length);
    if (lastEvent.action) added = *lastEvent.action == "add";
    if (!lastEvent.usbDevice) {
        logDebug2("device is not 'usb_device'");
        return false;
    }
    if (lastEvent.busNumber.empty() || lastEvent.deviceNumber.empty()) {
        logDebug2("can't get device node path");
        return false;
    }
    const std::string eventPath = lastEvent.busNumber + "/" + lastEvent.deviceNumber;
    logDebug3("got USB device: node=%s", eventPath.c_str());

    if (!added) {
        logDebug2("udev: FTDI USB device (%s) removed", eventPath.c_str());
        return eventPath == watchedPath;
    }

    const std::string vendorText = readFirstLine(lastEvent.sysfsDirectory + "/idVendor");
    const std::string productText = readFirstLine(lastEvent.sysfsDirectory + "/idProduct");
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
    return true;
}
