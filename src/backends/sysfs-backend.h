// Hardware: anything whose driver shows a bit as a text file (a status, a latched flag).
// Kernel interface: an attribute file that reads "0" or "1", polled.
// Vocabulary: element "device" with "path", "timeout" (poll interval, ms), "clear_flag" ("true":
// write "0" back after reading "1"), "inverted" ("true").
// Limits: inputs only; a change shorter than the poll interval is missed.
#pragma once

struct IoPort;
struct PortFunctions;

/// The operation table of ports of kind "sysfs"; gives the port a record if it has none.
const PortFunctions* sysfs_setup_functions(IoPort* port);
