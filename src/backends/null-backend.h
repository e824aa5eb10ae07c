// Hardware: none. Kernel interface: none. Limits: always reads low.
#pragma once

#include "description/vocabulary.h"

struct IoPort;
struct PortFunctions;

inline constexpr BackendVocabulary null_vocabulary{
    .name = "null", .meaning = "A port that does nothing and reads low."};

/// The operation table of ports of kind "null", which need no instance.
[[nodiscard]] const PortFunctions* null_setup_functions(IoPort* port = nullptr);
