// Verbs on ports: look, drive, configure.
#pragma once

#include "wexctl/bus.h"
#include "wexctl/supervised.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace wexctl {

/// Which side of a port a setting belongs to; nothing: the side in use.
using Side = std::optional<bool>;

/// "input" or "output" (true is input); throws for anything else.
Side parse_side(const std::string& text);
/// "on"/"off", "1"/"0", "true"/"false".
bool parse_state(const std::string& text);

/// What a port's settings are beside what the list of ports tells.
struct PortDetails {
  std::string input_name;
  std::string output_name;
  std::string usage;
  std::string active_input;
  std::string active_output;
  SupervisedWord supervised;
};
/// A port that is not published has none.
PortDetails port_details(const Daemon& daemon, const PortInfo& port);

/// A column of the list of ports.
struct PortColumn {
  const char* name;
  const char* heading;
  std::string (*value)(const PortInfo& port, const PortDetails& more);
};
/// The column of that name, which there must be.
const PortColumn& port_column(std::string_view name);
/// What the list of ports can show.
std::vector<std::string> list_column_names();
/// Only the columns that are wanted, if any are told.
void list_ports(const Daemon& daemon, bool json, const std::vector<std::string>& wanted);
void get_port(const Daemon& daemon, const std::string& port, bool json);
/// A port and the state that it is to have.
struct Setting {
  std::string port;
  bool state;
};
/// Drives the ports in this order, once all of them are known to be there.
void set_ports(const Daemon& daemon, const std::vector<Setting>& settings);
void toggle_ports(const Daemon& daemon, const std::vector<std::string>& ports);
/// Without `direction`, shows it.
void port_direction(const Daemon& daemon, const std::string& port, const std::string& direction);
/// Without `sense`, shows both sides.
void port_active(const Daemon& daemon, const std::string& port, const std::string& sense,
                 Side side);
/// Without a new name, shows both sides.
void port_name(const Daemon& daemon, const std::string& port,
               const std::optional<std::string>& name, Side side);
/// Without a new text, shows it.
void port_usage(const Daemon& daemon, const std::string& port,
                const std::optional<std::string>& usage);
void set_virtual(const Daemon& daemon, const std::string& port, const std::string& state);
/// With `wait`, returns when the sequence has ended.
void run_sequence(const Daemon& daemon, const std::string& port, const std::string& sequence,
                  bool is_virtual, bool wait);
/// Ends the sequence of a port, if one runs, and then sets `state`, if there is one.
void stop_sequence(const Daemon& daemon, const std::string& port,
                   const std::optional<std::string>& state);
void drop_ports(const Daemon& daemon, const std::vector<std::string>& names, bool json);
void refresh_ports(const Daemon& daemon);
void show_connectors(const Daemon& daemon, const std::string& description, bool json);

} // namespace wexctl
