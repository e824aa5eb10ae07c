// Live changes of all services, a line each.
#pragma once

#include "wexctl/bus.h"

namespace wexctl {

/// Prints changes until interrupted; goes on across restarts of the daemon and tells of them.
void monitor(const Daemon& daemon, bool json);

} // namespace wexctl
