// How the daemon is.
#pragma once

#include "wexctl/bus.h"
#include "wexctl/output.h"

namespace wexctl {

/// What `status` shows, as JSON has it.
Json daemon_status(const Daemon& daemon);
/// Version, age, bus names, ports, sequences, services around, and the last save that failed.
void show_status(const Daemon& daemon, bool json);

} // namespace wexctl
