// Hardware: none; the state lives in memory. Kernel interface: none.
// Limits: any state above 0 reads as 1.
#pragma once

#include "description/vocabulary.h"

struct IoPort;
struct PortFunctions;

inline constexpr BackendVocabulary virtual_vocabulary{
    .name = "virtual", .meaning = "A port without a line; its state is kept in memory."};

/// The operation table of ports of kind "virtual"; gives the port an instance if it has none.
[[nodiscard]] const PortFunctions* virtual_setup_functions(IoPort* port);
