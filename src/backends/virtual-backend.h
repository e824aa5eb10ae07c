// Hardware: none; the state lives in memory. Kernel interface: none. Vocabulary: none.
// Limits: any state above 0 reads as 1.
#pragma once

struct IoPort;
struct PortFunctions;

/// The operation table of ports of kind "virtual"; gives the port a state if it has none.
const PortFunctions* virtual_setup_functions(IoPort* port);
