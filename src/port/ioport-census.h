// Which of the described ports are in service, and why the others are not.
#pragma once

#include <glib.h>

#include <string>
#include <vector>

/// A described port that is not in service.
struct MissingPort {
  /// Empty for a port that the description does not name.
  std::string name;
  gint number;
  /// A refresh tries it again.
  bool optional;
  /// Empty where it is not known.
  std::string reason;
};

/// Manual triggers, which no description names, do not count; nor do ports that are meant for other
/// hardware or were described anew under their name.
struct PortCensus {
  guint described;
  guint in_service;
  std::vector<MissingPort> missing;
};

/// Takes the port list's mutex.
[[nodiscard]] PortCensus io_port_list_census();

/// "14 of 16 ports in service; missing: loop, siren", in one line.
[[nodiscard]] std::string port_census_text(const PortCensus& census);
