#pragma once

#include <string>

#include "sharedfile.h"

// The lamp test: raises each alarm in turn in the alarms file at `path`, in a section of its own,
// for so many seconds, and sees at the pins of the unit that it is shown. Alarms of others are not
// hidden: then it tests nothing, or ends. Prints what it sees. `change` applies an edit to the
// file, or ends the program. Returns a PluginStatus, or 128 and the signal that ended it.
int lampTest(const std::string& path, unsigned seconds,
             void (*change)(const std::string& path, const SharedFile::Edit& edit));
