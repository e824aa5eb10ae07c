// Hardware: a port of an external IO box, which classifies its lines by itself.
// Kernel interface: none; the IO box monitor service on the system bus (com.norv.IOBoxMonitor).
// Vocabulary: element "box" with "name" (the box model; without it an "x5210").
// Limits: supervised states come from the box; ranges are kept, not used.
#pragma once

struct IoPort;
struct PortFunctions;

/// The operation table of ports of kind "iobox"; gives the port a record if it has none.
const PortFunctions* iobox_setup_functions(IoPort* port);
