#pragma once

#include <string>

// The kernel's virtual USB host controller (module vhci-hcd), through its sysfs files.

enum class PortState { missing, free, busy };

// Looks a full-speed port up in the text of the controller's status file.
PortState portState(const std::string& statusText, unsigned port);

// Why no device can be attached here, in one line; empty when one can.
std::string vhciObstacle();

// Connects a full-speed device to the port. Waits up to two seconds for the port when a device
// is still leaving it. Returns the device's end of a non-blocking stream socket, which the
// caller closes, or -1 with the reason in `error`.
int attachPort(unsigned port, std::string& error);

// Takes the device off the port; the kernel finishes this on its own time.
void detachPort(unsigned port);
