// Waiting for a state of a port, and for the daemon.
#pragma once

#include "wexctl/bus.h"
#include "wexctl/duration.h"

#include <array>
#include <optional>
#include <string>

namespace wexctl {

/// What can be waited for.
inline constexpr std::array<const char*, 6> wait_states{"on",     "off",   "open",
                                                        "closed", "short", "cut"};

/// Returns when the port is in the state, at once if it is in it already; without a state, when its
/// next change is told. A time-out of 0 looks once. Throws when the time runs out, when the daemon
/// goes, and for a state that the port cannot have.
void wait_for_port(const Daemon& daemon, const std::string& port,
                   const std::optional<std::string>& state, Timeout timeout);

/// Returns when the daemon answers. Throws when the time runs out or the bus ends.
void wait_for_daemon(const Daemon& daemon, Timeout timeout);

} // namespace wexctl
