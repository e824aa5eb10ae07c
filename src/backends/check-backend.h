// Hardware: none; the state lives in memory. Kernel interface: none.
// Limits: none. Made for trying out descriptions and for tests.
//
// It takes any element and attribute, which hides mistakes: for a new kind of hardware, copy
// sysfs-backend instead.
#pragma once

#include "description/vocabulary.h"

struct IoPort;
struct PortFunctions;

inline constexpr std::array check_attributes{
    AttributeWord{"setup", ValueForm::Text, "\"fail\" makes the set-up fail."},
};
inline constexpr BackendVocabulary check_vocabulary{
    .name = "check",
    .meaning = "A port for trying descriptions out; remembers what it is told.",
    .attributes = check_attributes,
    .takes_all = true};

/// The operation table of ports of kind "check"; gives the port an instance if it has none.
[[nodiscard]] const PortFunctions* check_setup_functions(IoPort* port);
