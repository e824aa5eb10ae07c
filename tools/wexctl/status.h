// How the daemon is.
#pragma once

#include "wexctl/bus.h"

namespace wexctl {

/// Version, age, bus names, ports, sequences, services around, and the last save that failed.
void show_status(const Daemon& daemon, bool json);

} // namespace wexctl
