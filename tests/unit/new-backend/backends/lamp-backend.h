// Hardware: a lamp that nobody sees. Kernel interface: none. Limits: made to try out how a backend
// is added.
#pragma once

#include "description/vocabulary.h"

struct IoPort;
struct PortFunctions;

inline constexpr std::array lamp_colours{"red", "green"};
inline constexpr std::array lamp_attributes{
    AttributeWord{"colour", ValueForm::Words, "Colour of the lamp.", lamp_colours, true},
};
inline constexpr std::array lamp_elements{
    ElementWord{"bulb", "What shines.", lamp_attributes},
};
inline constexpr BackendVocabulary lamp_vocabulary{
    .name = "lamp", .meaning = "A lamp that nobody sees.", .elements = lamp_elements};

/// The operation table of ports of kind "lamp"; gives the port an instance if it has none.
const PortFunctions* lamp_setup_functions(IoPort* port);
