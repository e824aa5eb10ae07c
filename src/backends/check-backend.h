// Hardware: none; the state lives in memory. Kernel interface: none.
// Vocabulary: every attribute is remembered; any attribute setup="fail" makes the set-up fail.
// Limits: none. Made for trying out descriptions and for tests.
#pragma once

struct IoPort;
struct PortFunctions;

/// The operation table of ports of kind "check"; gives the port a record if it has none.
const PortFunctions* check_setup_functions(IoPort* port);
