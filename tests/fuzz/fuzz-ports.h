// A bench of ports on fake hardware, for targets that have no other.
#pragma once

#include "fuzz-support.h"

/// Fills the port list with one port of each type on fake hardware: an input (0), an output (1), a
/// configurable one (2), a read-only one (3) and a supervised input (4).
void fuzz_add_ports();
