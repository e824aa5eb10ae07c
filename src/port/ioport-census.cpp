#include "port/ioport-census.h"

#include "port/ioport-list-internal.h"

#include <algorithm>
#include <map>
#include <utility>

using namespace port_list;

namespace {

bool is_described(const IoPort* port) {
  return !port->origin.empty();
}

// By number, and those of one number in the order in which they came. A sorted vector would be the
// only one of its kind in the daemon, and cost twenty times its source in code.
using Missing = std::multimap<gint, MissingPort>;

void add(Missing* missing, MissingPort port) {
  missing->emplace(port.number, std::move(port));
}

std::string shown_name(const MissingPort& port) {
  std::string name = port.name.empty() ? "port " + std::to_string(port.number) : port.name;
  std::ranges::replace_if(
      name, [](char c) { return g_ascii_iscntrl(c) != FALSE; }, ' ');
  return name;
}

} // namespace

PortCensus io_port_list_census() {
  const MutexLock guard(lists.mutex);
  PortCensus census{.described = 0, .in_service = 0, .missing = {}};
  Missing missing;
  for (const auto& port : lists.lost_ports) {
    add(&missing, port);
  }
  for (const IoPort* port : lists.io_port_list) {
    // A port whose hardware went is listed as before, and has no state.
    if (is_described(port) && port->hardware_gone) {
      add(&missing, missing_port(port, "its hardware is gone"));
    } else if (is_described(port)) {
      census.in_service++;
    }
  }
  for (const IoPort* port : lists.io_port_dynamic_list) {
    add(&missing, missing_port(port, port->absence));
  }
  for (auto& [number, port] : missing) {
    census.missing.push_back(std::move(port));
  }
  census.described = census.in_service + static_cast<guint>(census.missing.size());
  return census;
}

std::string port_census_text(const PortCensus& census) {
  std::string text = std::to_string(census.in_service) + " of " + std::to_string(census.described)
                     + " ports in service";
  const char* separator = "; missing: ";
  for (const auto& port : census.missing) {
    text += separator + shown_name(port);
    separator = ", ";
  }
  return text;
}
