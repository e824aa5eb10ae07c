// Reading hardware descriptions before the daemon does.
#pragma once

#include <string>
#include <vector>

namespace wexctl {

/// Prints what the daemon would ignore, replace, drop or end over in the files, one finding a line;
/// true when none is a warning or an error. With `here`, also what of the hardware is not on this
/// machine.
bool check_files(const std::vector<std::string>& files, bool here, bool json);

} // namespace wexctl
