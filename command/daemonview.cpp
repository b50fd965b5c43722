#include "daemonview.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "conversions.h"

namespace {

constexpr const char* daemonFile = "/opt/orvel/bin/pinwatchd";
constexpr const char* daemonName = "pinwatchd";
constexpr const char* unitVendor = "0403";
constexpr const char* unitProduct = "6001";

constexpr unsigned ueventGroup = 1;  // the kernel's broadcasts
constexpr unsigned usbMajor = 189;   // of /dev/bus/usb, Documentation/admin-guide/devices.txt
constexpr unsigned devicesOfBus = 128;

// FTDI's vendor requests, as libftdi numbers them.
constexpr std::uint8_t vendorIn = 0xc0;  // bmRequestType: USB 2.0, 9.3
constexpr std::uint8_t readPinsRequest = 0x0c;
constexpr std::uint8_t readEepromRequest = 0x90;
constexpr std::uint16_t cbusFunctionsWord = 10;
constexpr int cbus01Functions = 0xff;
constexpr int outputs = 3;
constexpr unsigned answerMs = 1000;

// More than the daemon may have of memory; what is larger belongs to the tools of a test build.
constexpr std::size_t maxMapping = std::size_t{64} * 1024 * 1024;

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

std::vector<std::string> entries(const std::string& folder) {
    std::vector<std::string> names;
    DIR* directory = opendir(folder.c_str());
    if (!directory) return names;
    while (const dirent* entry = readdir(directory)) names.emplace_back(entry->d_name);
    closedir(directory);
    return names;
}

std::string processFile(pid_t process, const std::string& name) {
    return "/proc/" + std::to_string(process) + "/" + name;
}

std::string firstLine(const std::string& path) {
    const File file(std::fopen(path.c_str(), "r"));
    char line[512] = "";
    if (!file || !std::fgets(line, sizeof line, file.get())) return "";
    line[std::strcspn(line, "\n")] = '\0';
    return line;
}

// The kernel adds " (deleted)" to the name of a program that was replaced.
bool isDaemon(pid_t process) {
    char target[PATH_MAX];
    const ssize_t length = readlink(processFile(process, "exe").c_str(), target, sizeof target);
    if (length < 0) return false;
    const std::string program(target, static_cast<std::size_t>(length));
    return program == daemonFile || program == std::string(daemonFile) + " (deleted)";
}

struct Listener {
    unsigned port;  // its netlink address, for the daemon's socket its process ID
    unsigned unread;
};

// Those who listen to the kernel's events here.
std::vector<Listener> listeners() {
    std::vector<Listener> found;
    const File file(std::fopen("/proc/net/netlink", "r"));
    char line[512];
    while (file && std::fgets(line, sizeof line, file.get())) {
        // "sk Eth Pid Groups Rmem ...", where Eth is the protocol.
        char* rest = line + std::strcspn(line, " ");
        const unsigned long protocol = std::strtoul(rest, &rest, 10);
        const auto port = static_cast<unsigned>(std::strtoul(rest, &rest, 10));
        const unsigned long groups = std::strtoul(rest, &rest, 16);
        const auto unread = static_cast<unsigned>(std::strtoul(rest, &rest, 10));
        if (protocol == NETLINK_KOBJECT_UEVENT && groups == ueventGroup) {
            found.push_back({port, unread});
        }
    }
    return found;
}

UsbDevice deviceOf(const std::string& sysfs, unsigned bus, unsigned number) {
    char node[sizeof "4294967295/4294967295"];
    std::snprintf(node, sizeof node, "%03u/%03u", bus, number);
    return {node, std::string("/dev/bus/usb/") + node, firstLine(sysfs + "/product"),
            firstLine(sysfs + "/bcdDevice"), firstLine(sysfs + "/authorized")};
}

bool hasUnitIds(const std::string& sysfs) {
    return firstLine(sysfs + "/idVendor") == unitVendor &&
           firstLine(sysfs + "/idProduct") == unitProduct;
}

// The answer to a vendor request, of up to two bytes, the low one first; -1 with errno. It needs
// no claim, so others may use the device meanwhile.
int readVendor(const UsbDevice& device, std::uint8_t request, std::uint16_t index,
               std::uint16_t length) {
    const int node = open(device.file.c_str(), O_RDWR | O_CLOEXEC);
    if (node < 0) return -1;
    std::uint8_t answer[2] = {};
    usbdevfs_ctrltransfer transfer = {vendorIn, request, 0, index, length, answerMs, answer};
    const int got = ioctl(node, USBDEVFS_CONTROL, &transfer);
    const int error = got < 0 ? errno : EIO;
    close(node);
    errno = error;
    return got == length ? answer[0] | answer[1] << 8 : -1;
}

}  // namespace

std::vector<pid_t> findDaemons(bool& hidden) {
    std::vector<pid_t> found;
    hidden = false;
    for (const std::string& entry : entries("/proc")) {
        pid_t process = 0;
        if (!toInt(entry, process, 10)) continue;
        errno = 0;
        if (isDaemon(process)) {
            found.push_back(process);
        } else if (errno == EACCES) {
            hidden |= firstLine(processFile(process, "comm")) == daemonName;
        }
    }
    hidden = hidden && found.empty();
    return found;
}

bool isStopped(pid_t daemon) {
    const std::string status = firstLine(processFile(daemon, "stat"));
    const std::size_t nameEnd = status.rfind(')');
    return nameEnd != std::string::npos && status.compare(nameEnd, 3, ") T") == 0;
}

unsigned unreadEvents(pid_t daemon) {
    for (const Listener& listener : listeners()) {
        if (listener.port == static_cast<unsigned>(daemon)) return listener.unread;
    }
    return 0;
}

void wakeDaemons() {
    static constexpr char event[] =
        "change@/module/pinwatchd\0ACTION=change\0DEVPATH=/module/pinwatchd\0SUBSYSTEM=module";
    const int socketFile = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    if (socketFile < 0) return;
    for (const Listener& listener : listeners()) {
        // Where something lies unread already the daemon wakes anyway, and its socket is small.
        if (listener.unread > 0 || !isDaemon(static_cast<pid_t>(listener.port))) continue;
        sockaddr_nl address = {};
        address.nl_family = AF_NETLINK;
        address.nl_pid = listener.port;
        sendto(socketFile, event, sizeof event, MSG_DONTWAIT,
               reinterpret_cast<const sockaddr*>(&address), sizeof address);
    }
    close(socketFile);
}

bool readsFile(pid_t daemon, const std::string& path) {
    const File maps(std::fopen(processFile(daemon, "maps").c_str(), "r"));
    const int memory = open(processFile(daemon, "mem").c_str(), O_RDONLY | O_CLOEXEC);
    bool found = !maps || memory < 0;
    char line[PATH_MAX + 128];
    std::string text;
    while (!found && std::fgets(line, sizeof line, maps.get())) {
        char* rest = nullptr;
        const unsigned long long begin = std::strtoull(line, &rest, 16);
        const unsigned long long end = std::strtoull(rest + 1, &rest, 16);
        if (std::strncmp(rest, " rw-p ", 6) != 0) continue;
        if (end - begin > maxMapping) {
            found = true;
            break;
        }
        text.resize(static_cast<std::size_t>(end - begin));
        const ssize_t length = pread(memory, text.data(), text.size(), static_cast<off_t>(begin));
        if (length <= 0) continue;
        text.resize(static_cast<std::size_t>(length));
        found = text.find(path + '\0') != std::string::npos;
    }
    if (memory >= 0) close(memory);
    return found;
}

std::vector<UsbDevice> attachedDevices() {
    std::vector<UsbDevice> devices;
    for (const std::string& entry : entries("/sys/bus/usb/devices")) {
        const std::string sysfs = "/sys/bus/usb/devices/" + entry;
        if (!hasUnitIds(sysfs)) continue;
        int bus = 0;
        int number = 0;
        toInt(firstLine(sysfs + "/busnum"), bus, 10);
        toInt(firstLine(sysfs + "/devnum"), number, 10);
        devices.push_back(
            deviceOf(sysfs, static_cast<unsigned>(bus), static_cast<unsigned>(number)));
    }
    return devices;
}

UsbDevice openedDevice(pid_t daemon) {
    const std::string folder = processFile(daemon, "fd");
    for (const std::string& entry : entries(folder)) {
        std::string file = folder + "/";
        file += entry;
        struct stat status = {};
        if (stat(file.c_str(), &status) != 0 || !S_ISCHR(status.st_mode)) continue;
        if (major(status.st_rdev) != usbMajor) continue;
        const unsigned index = minor(status.st_rdev);
        const std::string sysfs = "/sys/dev/char/189:" + std::to_string(index);
        const bool isGone = access(sysfs.c_str(), F_OK) != 0;
        if (!isGone && !hasUnitIds(sysfs)) continue;
        UsbDevice device = deviceOf(sysfs, index / devicesOfBus + 1, index % devicesOfBus + 1);
        device.file = std::move(file);
        return device;
    }
    return {};
}

int readPins(const UsbDevice& device) {
    const int pins = readVendor(device, readPinsRequest, 0, 1);
    return pins < 0 ? -1 : pins & outputs;
}

int readCbusFunctions(const UsbDevice& device) {
    const int word = readVendor(device, readEepromRequest, cbusFunctionsWord, 2);
    return word < 0 ? -1 : word & cbus01Functions;
}
