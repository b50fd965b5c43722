#include "vhci.h"

#include <fcntl.h>
#include <glob.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

// Documentation/ABI/testing/sysfs-platform-usbip-vudc and drivers/usb/usbip/vhci_sysfs.c of the
// kernel: the first controller, whose full-speed ports count from 0.
constexpr char controller[] = "/sys/devices/platform/vhci_hcd.0";
constexpr char attachFile[] = "/sys/devices/platform/vhci_hcd.0/attach";
constexpr char detachFile[] = "/sys/devices/platform/vhci_hcd.0/detach";
constexpr char statusFile[] = "/sys/devices/platform/vhci_hcd.0/status";

constexpr unsigned portIsFree = 4;       // VDEV_ST_NULL
constexpr unsigned fullSpeed = 2;        // USB_SPEED_FULL
constexpr unsigned busNumber = 1 << 16;  // upper half of a devid; must not be 0

// Empty when it cannot be read.
std::string readFile(const char* path) {
    std::string text;
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        char buffer[4096];
        ssize_t got;
        while ((got = read(fd, buffer, sizeof buffer)) > 0) {
            text.append(buffer, static_cast<std::size_t>(got));
        }
        close(fd);
    }
    return text;
}

// A sysfs attribute takes its whole text in one write. Leaves the failure in errno.
bool writeFile(const char* path, const std::string& text) {
    const int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const bool written = write(fd, text.data(), text.size()) >= 0;
    const int failure = errno;
    close(fd);
    errno = failure;
    return written;
}

// Whether a device is still known as the one on the port, or as one that was.
bool isDeviceKnown(unsigned port) {
    const std::string pattern =
        std::string(controller) + "/usb*/*-" + std::to_string(port + 1) + "/speed";
    glob_t found;
    bool known = false;
    if (glob(pattern.c_str(), 0, nullptr, &found) == 0) {
        for (std::size_t i = 0; i < found.gl_pathc; ++i) {
            // The controller's SuperSpeed ports have the same numbers.
            known = known || readFile(found.gl_pathv[i]) == "12\n";
        }
        globfree(&found);
    }
    return known;
}

}  // namespace

PortState parsePortState(const std::string& statusText, unsigned port) {
    for (std::size_t at = 0; at < statusText.size();) {
        unsigned listedPort = 0;
        unsigned state = 0;
        // NOLINTNEXTLINE(cert-err34-c): the kernel's numbers fit
        if (std::sscanf(&statusText[at], "hs %u %u", &listedPort, &state) == 2 &&
            listedPort == port) {
            return state == portIsFree ? PortState::free : PortState::busy;
        }
        const std::size_t lineEnd = statusText.find('\n', at);
        at = lineEnd == std::string::npos ? statusText.size() : lineEnd + 1;
    }
    return PortState::missing;
}

PortState portState(unsigned port) {
    const PortState state = parsePortState(readFile(statusFile), port);
    return state == PortState::free && isDeviceKnown(port) ? PortState::busy : state;
}

std::string vhciObstacle() {
    if (access(attachFile, F_OK) != 0) {
        return "no virtual USB controller here: load the module vhci-hcd";
    }
    if (access(attachFile, W_OK) != 0) {
        return std::string(attachFile) + " cannot be written: run as root";
    }
    return "";
}

int attachPort(unsigned port, std::string& error) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        error = std::string("no socket pair: ") + std::strerror(errno);
        return -1;
    }
    // Only the device's end: the kernel's threads expect to block on theirs.
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    const bool attached = writeFile(
        attachFile, std::to_string(port) + " " + std::to_string(ends[1]) + " " +
                        std::to_string(busNumber + port + 1) + " " + std::to_string(fullSpeed));
    if (!attached) {
        error = "port " + std::to_string(port) + " cannot be attached: " + std::strerror(errno);
    }
    close(ends[1]);
    if (!attached) {
        close(ends[0]);
        return -1;
    }
    return ends[0];
}

void detachPort(unsigned port) { writeFile(detachFile, std::to_string(port)); }
