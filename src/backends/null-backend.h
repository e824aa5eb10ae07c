// Hardware: none. Kernel interface: none. Vocabulary: none. Limits: always reads low.
//
// The smallest complete backend: the one to copy for a new kind of hardware.
#pragma once

struct PortFunctions;

/// The operation table of ports of kind "null".
const PortFunctions* null_setup_functions();
