// Prints a line for each uevent of a USB device, its interface or its driver, and what was there
// of the device when the event was read: its attributes (a) and its node (n). In the VM it shows
// what the kernel does; linked into the simulation, what the model does.
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

// observer SIZE, that of the socket's buffer
int main(int, char* arguments[]) {
    const int fd = socket(AF_NETLINK, SOCK_RAW, NETLINK_KOBJECT_UEVENT);
    const int size = std::atoi(arguments[1]);
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = 1;
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return 1;
    for (;;) {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(fd, &readable);
        pselect(fd + 1, &readable, nullptr, nullptr, nullptr, nullptr);
        char buffer[2048];
        const ssize_t length = recv(fd, buffer, sizeof buffer, 0);
        if (length < 0 && errno == ENOBUFS) std::puts("lost");
        std::map<std::string, std::string> entries;
        const std::string text(buffer, length < 0 ? 0 : static_cast<std::size_t>(length));
        for (std::size_t at = 0; at < text.size(); at = text.find('\0', at) + 1) {
            const std::string entry(text.c_str() + at);
            const std::size_t equals = entry.find('=');
            if (equals != std::string::npos)
                entries[entry.substr(0, equals)] = entry.substr(equals + 1);
        }
        std::string type = entries["DEVTYPE"];
        if (type.empty() && entries["SUBSYSTEM"] == "usb-serial") type = "usb_serial";
        if (type.rfind("usb_", 0) != 0) continue;
        std::string there;
        if (type == "usb_device") {
            const std::string node = "/dev/bus/usb/" + entries["BUSNUM"] + "/" + entries["DEVNUM"];
            if (access(("/sys" + entries["DEVPATH"] + "/idVendor").c_str(), 0) == 0) there += " a";
            if (access(node.c_str(), 0) == 0) there += " n";
        }
        std::printf("%s %s%s\n", entries["ACTION"].c_str(), type.c_str() + 4, there.c_str());
        std::fflush(stdout);
    }
}
