// Verbs on supervised inputs.
#pragma once

#include "wexctl/bus.h"
#include "wexctl/output.h"

#include <optional>
#include <string>
#include <vector>

namespace wexctl {

/// "open", "closed", "short", "cut" or "undefined".
using SupervisedWord = std::optional<std::string>;
/// What the line of a supervised port is at, if it is an input; nothing for any other.
SupervisedWord supervised_word(const Daemon& daemon, int number, bool input);
/// The ports that can be supervised.
std::vector<guint> supervisable_numbers(const Daemon& daemon);

/// A supervisable port as JSON has it: number, name, supervised, ranges, and if it is supervised
/// its state and level, or the error that its reading is.
Json supervised_json(const Daemon& daemon, const PortInfo& port);

/// All supervisable ports, or one, with reading and ranges.
void supervised_show(const Daemon& daemon, const std::optional<std::string>& port, bool json);
void supervised_switch(const Daemon& daemon, const std::string& port, bool on);
/// Without a state, shows the ranges; else adds one.
void supervised_ranges(const Daemon& daemon, const std::string& port, const std::string& state,
                       guint lower, guint upper, bool json);
void supervised_read(const Daemon& daemon, const std::string& port, bool json);

} // namespace wexctl
