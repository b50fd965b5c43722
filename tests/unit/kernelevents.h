#pragma once

#include <string>

#include "world.h"

// A test with uevents and device nodes of its own: a private network namespace, in which this
// class multicasts on the kernel's behalf, an empty /dev in a private mount namespace, and a
// folder that stands in for a device's sysfs directory. Skips where the kernel lets only root make
// namespaces, and this user is another.
class KernelEventsTest : public WorldTest {
protected:
    void SetUp() override;
    void TearDown() override;

    // Multicasts a datagram; "|" stands for NUL.
    void send(std::string datagram) const;

    // An event of a USB device of bus 001 whose sysfs directory is the test's folder.
    std::string usbEvent(const std::string& action, const std::string& devnum) const;

    // Creates or removes the device node 001/004.
    void putNode(bool present) const;

    // Writes the sysfs files of the device.
    void putSysfs(const std::string& vendor, const std::string& product) const;

private:
    int sender = -1;
};
