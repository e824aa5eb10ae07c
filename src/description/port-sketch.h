// What a description says of one port, as far as the daemon would take it.
#pragma once

#include "description/vocabulary.h"

#include <glib.h>

#include <optional>
#include <set>
#include <string>

struct DescribedPlace {
  std::string file;
  int line = 0;
};

struct PortSketch {
  DescribedPlace place;
  std::string name;
  /// nullptr: none that is known.
  const BackendVocabulary* backend = nullptr;
  /// One of port_type_names.
  std::string type = "input";
  std::optional<gint64> number;
  bool has_hwid = false;
  bool optional = false;
  bool addressable = false;
  /// Type of the newest event; none when the port has no event.
  std::optional<std::string> event;
  /// Elements that the backend was told of by at least one attribute.
  std::set<std::string, std::less<>> backend_elements;
  /// "adc" mode: measured without pins.
  bool pinless = false;
  /// Poll interval, once told.
  std::optional<gint64> interval;
};
