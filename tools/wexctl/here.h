// Whether the hardware that a description names is on this machine.
#pragma once

#include "description/check.h"

#include <string>
#include <vector>

namespace wexctl {

/// What the files name of pins, converters, device nodes and attribute files that is not there or
/// that this user cannot open. Of an optional port, or one for certain hardware, that is a note.
std::vector<Finding> check_hardware(const std::vector<std::string>& files);

} // namespace wexctl
