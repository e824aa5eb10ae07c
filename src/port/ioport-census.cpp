#include "port/ioport-census.h"

#include "port/ioport-list-internal.h"

#include <algorithm>

using namespace port_list;

namespace {

bool is_described(const IoPort* port) {
  return !port->origin.empty();
}

// A port whose hardware went is listed as before, and has no state.
void count_listed(const IoPort* port, PortCensus* census) {
  if (port->hardware_gone) {
    census->missing.push_back(missing_port(port, "its hardware is gone"));
  } else {
    census->in_service++;
  }
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
  PortCensus census{.described = 0, .in_service = 0, .missing = lists.lost_ports};
  for (const IoPort* port : lists.io_port_list) {
    if (is_described(port)) {
      count_listed(port, &census);
    }
  }
  for (const IoPort* port : lists.io_port_dynamic_list) {
    census.missing.push_back(missing_port(port, port->absence));
  }
  std::ranges::stable_sort(census.missing, {}, &MissingPort::number);
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
