#include "kernelevents.h"

#include <linux/netlink.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace {

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
           mount("", "/dev", "tmpfs", 0, "") == 0;
}

}  // namespace

void KernelEventsTest::SetUp() {
    static const bool ownSystem = enterOwnSystem();
    if (!ownSystem) GTEST_SKIP() << "namespaces need root here";
    putNode(true);
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

void KernelEventsTest::putNode(bool present) const {
    std::filesystem::remove_all("/dev/bus");
    if (!present) return;
    std::filesystem::create_directories("/dev/bus/usb/001");
    std::ofstream("/dev/bus/usb/001/004");
}

void KernelEventsTest::putSysfs(const std::string& vendor, const std::string& product) const {
    write("idVendor", vendor, 1);
    write("idProduct", product, 1);
}
