// The legacy configuration properties of a port.
#pragma once

#include "wexctl/bus.h"

#include <string>

namespace wexctl {

/// `property` is a name, or "Input.NAME" / "Output.NAME" / "IOPort.NAME" where a name is on two
/// interfaces. Without a property, shows all of the port.
void legacy_get(const Daemon& daemon, const std::string& port, const std::string& property,
                bool json);
void legacy_set(const Daemon& daemon, const std::string& port, const std::string& property,
                const std::string& value);

} // namespace wexctl
