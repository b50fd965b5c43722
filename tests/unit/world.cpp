#include "world.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <utility>

#include "daemonstate.h"
#include "logger.h"

World world;

namespace {

int logMask = 0xff;
unsigned char levels = 0;
unsigned char readBuffer = 0;

bool enterOwnSystem() {
    const auto user = getuid();
    const auto group = getgid();
    const int ownUsers = user == 0 ? 0 : CLONE_NEWUSER;
    if (unshare(CLONE_NEWNET | CLONE_NEWNS | ownUsers) != 0) return false;
    if (ownUsers) {
        std::ofstream("/proc/self/setgroups") << "deny";
        std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
        std::ofstream("/proc/self/gid_map") << "0 " << group << " 1";
    }
    return mount("", "/", "", MS_PRIVATE | MS_REC, "") == 0 &&
           mount("", "/dev", "tmpfs", 0, "") == 0 && mount("", "/proc/bus", "tmpfs", 0, "") == 0;
}

}  // namespace

ListedDevice& World::attach(const std::string& file, const std::string& product) {
    attached.emplace_back();
    Attached& last = attached.back();
    last.product = product;
    last.device.descriptor.bcdDevice = 0x0600;
    setFile(last.device, file.c_str());
    return last.device;
}

void World::add(const char* format, ...) {
    char line[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    trace += std::string(line) + "|";
    if (onTrace) onTrace(line);
}

int World::result(const std::string& call) {
    std::deque<int>& scripted = results[call];
    if (scripted.empty()) return 0;
    const int value = scripted.front();
    scripted.pop_front();
    return value;
}

std::string World::take() { return std::exchange(trace, ""); }

WorldTest::WorldTest() {
    char pattern[] = "/tmp/pinwatchd-test-XXXXXX";
    folder = mkdtemp(pattern);
    world = {};
    SysLog::release();
    SysLog::instance()->configure(0, 0, false);
    world.trace.clear();
}

WorldTest::~WorldTest() {
    EXPECT_TRUE(world.listFreed);
    std::filesystem::remove_all(folder);
}

std::string WorldTest::write(const std::string& name, const std::string& text,
                             std::time_t mtime) const {
    const std::string file = folder + "/" + name;
    std::ofstream(file, std::ios::binary) << text;
    const timespec times[] = {{mtime, 0}, {mtime, 0}};
    EXPECT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
    return file;
}

void KernelEventsTest::SetUp() {
    static const bool ownSystem = enterOwnSystem();
    if (!ownSystem) GTEST_SKIP() << "namespaces need root here";
    putNode("/dev/bus/usb/001/004");
    DaemonState::stopRequested = 0;
    sender = socket(AF_NETLINK, SOCK_RAW, NETLINK_KOBJECT_UEVENT);
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_pid = 1;  // the monitor takes the process's own
    ASSERT_EQ(bind(sender, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    putSysfs("0403\n", "6001\n");
}

void KernelEventsTest::TearDown() { close(sender); }

void KernelEventsTest::send(std::string datagram) const {
    std::replace(datagram.begin(), datagram.end(), '|', '\0');
    sockaddr_nl group = {};
    group.nl_family = AF_NETLINK;
    group.nl_groups = 1;
    sendto(sender, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&group),
           sizeof group);
}

std::string KernelEventsTest::usbEvent(const std::string& action, const std::string& devnum) const {
    return action + "@/x|ACTION=" + action + "|DEVPATH=/.." + folder +
           "|DEVTYPE=usb_device|BUSNUM=001|DEVNUM=" + devnum + "|";
}

void KernelEventsTest::putNode(const std::string& node) {
    for (const char* root : {"/dev/bus/usb", "/proc/bus/usb"}) std::filesystem::remove_all(root);
    if (node.empty()) return;
    std::filesystem::create_directories(std::filesystem::path(node).parent_path());
    std::ofstream{node};
}

void KernelEventsTest::putSysfs(const std::string& vendor, const std::string& product) const {
    write("idVendor", vendor, 1);
    write("idProduct", product, 1);
}

extern "C" {

void vsyslog(int priority, const char* text, va_list arguments) {
    if ((LOG_MASK(LOG_PRI(priority)) & logMask) == 0) return;
    char buffer[1024];
    vsnprintf(buffer, sizeof buffer, text, arguments);
    world.add("<%d>%s", priority, buffer);
}

void openlog(const char* ident, int options, int facility) {
    world.add("openlog %s 0x%x %d", ident ? ident : "null", static_cast<unsigned>(options),
              facility);
}

void closelog() { world.add("closelog"); }

int setlogmask(int mask) {
    world.add("setlogmask 0x%x", static_cast<unsigned>(mask));
    logMask = mask;
    return 0;
}

ssize_t recv(int fd, void* buffer, size_t size, int flags) {
    const ssize_t length = recvfrom(fd, buffer, size, flags, nullptr, nullptr);
    const int error = errno;
    if (world.onReceive) world.onReceive();
    errno = error;
    return length;
}

int isatty(int) { return world.terminal ? 1 : 0; }

int ftdi_init(ftdi_context* context) {
    const int result = world.result("ftdi_init");
    if (result == 0) context->readbuffer = &readBuffer;
    return result;
}

void ftdi_deinit(ftdi_context*) { world.add("ftdi_deinit"); }

decltype(ftdi_get_error_string(nullptr)) ftdi_get_error_string(ftdi_context*) {
    return const_cast<char*>("reason");
}

int ftdi_usb_find_all(ftdi_context*, ftdi_device_list** list, int vendor, int product) {
    world.add("find_all %04x:%04x", static_cast<unsigned>(vendor), static_cast<unsigned>(product));
    if (const int result = world.result("find_all")) return result;
    for (World::Attached& unit : world.attached) {
        unit.element.dev = &unit.device;
        *list = &unit.element;
        world.listFreed = false;
        list = &unit.element.next;
    }
    return static_cast<int>(world.attached.size());
}

void ftdi_list_free(ftdi_device_list** list) {
    EXPECT_EQ(*list, &world.attached.front().element);
    world.listFreed = true;
}

int ftdi_usb_get_strings(ftdi_context*, ListedDevice* dev, char* manufacturer, int, char* product,
                         int productSize, char* serial, int) {
    EXPECT_FALSE(manufacturer || serial);
    EXPECT_EQ(productSize, 512);
    for (const World::Attached& unit : world.attached) {
        if (&unit.device == dev) std::strcpy(product, unit.product.c_str());
    }
    return world.result("get_strings");
}

int ftdi_usb_open_dev(ftdi_context* context, ListedDevice* dev) {
    world.add("open %s", dev->filename);
    const int result = world.result("open");
    // With libftdi1's -12 it stays open.
    if (result == 0 || result == -12)
        context->usb_dev = reinterpret_cast<decltype(context->usb_dev)>(dev);
    return result;
}

int ftdi_usb_close(ftdi_context* context) {
    world.add("usb_close");
    context->usb_dev = nullptr;
    return -1;
}

int ftdi_read_eeprom_location(ftdi_context*, int location, unsigned short* word) {
    world.add("eeprom %d", location);
    *word = world.eepromWord;
    return world.result("eeprom");
}

int ftdi_set_bitmode(ftdi_context* context, unsigned char mask, unsigned char mode) {
    world.add("bitmode %02x %02x", mask, mode);
    const int result = world.result("bitmode");
    if (result == 0) {
        context->bitbang_enabled = 1;
        levels = mask & 0x0f;
    }
    return result;
}

int ftdi_read_pins(ftdi_context*, unsigned char* pins) {
    *pins = world.pinsRead < 0 ? levels : static_cast<unsigned char>(world.pinsRead);
    return world.result("read_pins");
}

int ftdi_disable_bitbang(ftdi_context* context) {
    world.add("disable_bitbang");
    context->bitbang_enabled = 0;
    return -1;
}
}
