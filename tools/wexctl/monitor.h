// Live changes of all services, a line each.
#pragma once

#include "wexctl/bus.h"
#include "wexctl/duration.h"
#include "wexctl/monitor-line.h"

#include <optional>
#include <string>
#include <vector>

namespace wexctl {

struct MonitorOptions {
  LineFormat format = LineFormat::text();
  /// Whose changes are shown; none: those of all.
  std::vector<std::string> ports;
  /// Begin with the present states, here and after a return of the daemon.
  bool initial = false;
  /// Say nothing of the watch itself.
  bool quiet = false;
  /// End after so many lines about ports.
  std::optional<guint> count;
  /// End when nothing was shown for so long.
  Timeout idle_timeout;
  /// Throw that the time ran out after so long.
  Timeout timeout;
};

/// Prints changes until interrupted; goes on across restarts of the daemon and tells of them.
void monitor(const Daemon& daemon, const MonitorOptions& options);

} // namespace wexctl
