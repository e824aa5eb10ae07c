// Tells of which described port the log speaks.
#pragma once

#include "platform/log.h"

#include <string>

struct IoPort;

/// "FILE:LINE: port 'NAME' (number N)", with file and line of the description.
[[nodiscard]] std::string port_place(const IoPort* port);

/// As long as it lives, the first complaint that this thread logs is followed by a line that says
/// which port of which description it is about: many a complaint has a fixed text that does not. Of
/// ports that come from no description nothing is said.
class PortPlace {
public:
  explicit PortPlace(const IoPort* port) : place_(place_of, port) {}

private:
  static std::string place_of(const void* port);

  LogPlace place_;
};
