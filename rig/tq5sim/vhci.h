#pragma once

#include <string>

// The kernel's virtual USB host controller (module vhci-hcd), through its sysfs files.

enum class PortState { missing, free, busy };

// Looks a full-speed port up in the text of the controller's status file.
PortState parsePortState(const std::string& statusText, unsigned port);

// Free only when the kernel has also forgotten the device that was on the port before: it would
// take an equal one, plugged too soon, for the old one and tell nobody of the change.
PortState portState(unsigned port);

// Why no device can be attached here, in one line; empty when one can.
std::string vhciObstacle();

// Connects a full-speed device to a free port. Returns the device's end of a non-blocking stream
// socket, which the caller closes, or -1 with the reason in `error`.
int attachPort(unsigned port, std::string& error);

// Takes the device off the port; the kernel finishes this on its own time.
void detachPort(unsigned port);
