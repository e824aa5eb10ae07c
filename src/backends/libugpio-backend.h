// Hardware: pins of the processor or of an expander: one in, one out, and for a configurable port
// one that switches the external line driver.
// Kernel interface: sysfs GPIO, through libugpio.
// Vocabulary: elements "input", "output" and "io_ctrl", each with "pin" (number), "alias" (line
// name, preferred) and "inverted" ("true": active low; anything else: active high).
// Limits: no supervision.
#pragma once

struct IoPort;
struct PortFunctions;

/// The operation table of ports of kind "gpio"; gives the port a record if it has none.
const PortFunctions* libugpio_setup_functions(IoPort* port);
