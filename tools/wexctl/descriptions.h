// Where the daemon finds its hardware descriptions.
#pragma once

#include <string>
#include <vector>

namespace wexctl {

/// The files that the daemon would read now, in its order. What it skips in its drop folder is left
/// out; it says so itself.
std::vector<std::string> description_files();

} // namespace wexctl
