// Hardware: a port of an external IO box, which classifies its lines by itself.
// Kernel interface: none; the IO box monitor service on the system bus (com.norv.IOBoxMonitor).
// Limits: supervised states come from the box; ranges are kept, not used.
#pragma once

#include "description/vocabulary.h"

struct IoPort;
struct PortFunctions;

inline constexpr std::array iobox_box_attributes{
    AttributeWord{.name = "name",
                  .form = ValueForm::Text,
                  .meaning = "Model of the box; without it an x5210.",
                  .required = true},
};
inline constexpr std::array iobox_elements{
    ElementWord{"box", "The box that the port is on.", iobox_box_attributes},
};
inline constexpr BackendVocabulary iobox_vocabulary{
    .name = "iobox", .meaning = "A port of an external IO box.", .elements = iobox_elements};

/// The operation table of ports of kind "iobox"; gives the port an instance if it has none.
[[nodiscard]] const PortFunctions* iobox_setup_functions(IoPort* port);
