// What becomes of a port whose description is complete.
#pragma once

#include "description/check.h"
#include "description/port-sketch.h"

#include <vector>

struct PortFinding {
  Severity severity;
  std::string text;
};

/// What the daemon would make of the port as a whole.
[[nodiscard]] std::vector<PortFinding> check_port(const PortSketch& port);
