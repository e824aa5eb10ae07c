// The operator's screen: the ports, what happens to them, and keys that drive them.
#pragma once

#include "wexctl/bus.h"

#include <string>

namespace wexctl {

struct LiveOptions {
  /// Whether keys may drive outputs.
  bool control = false;
  /// A file with keys of the user's own; empty for none.
  std::string keys;
  /// A pipe whose lines are shown among the changes; empty for none.
  std::string notes;
};

/// Shows the screen until the user quits or the process is asked to end.
void live(const Daemon& daemon, const LiveOptions& options);

} // namespace wexctl
