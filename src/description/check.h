// What the daemon would make of hardware descriptions.
#pragma once

#include <string>
#include <vector>

enum class Severity {
  /// Worth knowing; does not fail a check.
  Note,
  /// The daemon ignores, replaces or drops something.
  Warning,
  /// The daemon cannot read the file, or ends over what it holds.
  Error,
};

struct Finding {
  std::string file;
  /// Counted from 1; 0 for the file as a whole.
  int line;
  Severity severity;
  /// One sentence for users, without its full stop. Holds texts of the file as they are.
  std::string text;
};

/// What the daemon would ignore, replace, drop or end over in the files, read in this order; by
/// file and line.
[[nodiscard]] std::vector<Finding> check_descriptions(const std::vector<std::string>& files);
