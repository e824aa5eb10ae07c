// Reading hardware descriptions before the daemon does.
#pragma once

#include <string>
#include <vector>

namespace wexctl {

enum class Severity {
  /// Worth knowing; does not fail the check.
  Note,
  /// The daemon ignores, replaces or drops something.
  Warning,
  /// The daemon cannot read the file, or trips over what it holds.
  Error,
};

struct Finding {
  std::string file;
  int line;
  Severity severity;
  std::string text;
};

/// What the daemon would ignore, replace, drop or trip over in the files, read in this order.
std::vector<Finding> check_descriptions(const std::vector<std::string>& files);

/// Prints the findings, one a line; true when none is a warning or an error.
bool check_files(const std::vector<std::string>& files, bool json);

} // namespace wexctl
