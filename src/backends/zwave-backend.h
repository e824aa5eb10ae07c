// Hardware: a Z-Wave device, by the port's number.
// Kernel interface: none; the Z-Wave service on the system bus (com.norv.ZWave.IO).
// Limits: no supervision; failed calls are told in the system log only.
#pragma once

#include "description/vocabulary.h"

struct IoPort;
struct PortFunctions;

inline constexpr BackendVocabulary zwave_vocabulary{
    .name = "zwave", .meaning = "A Z-Wave device of the port's number."};

/// The operation table of ports of kind "zwave"; gives the port an instance if it has none.
[[nodiscard]] const PortFunctions* zwave_setup_functions(IoPort* port);
