// Hardware: anything whose driver shows a bit as a text file (a status, a latched flag).
// Kernel interface: an attribute file that reads "0" or "1", polled.
// Limits: inputs only; a change shorter than the poll interval is missed.
#pragma once

#include "description/vocabulary.h"

struct IoPort;
struct PortFunctions;

inline constexpr std::array sysfs_device_attributes{
    AttributeWord{
        .name = "path", .form = ValueForm::Text, .meaning = "Path of the file.", .required = true},
    AttributeWord{.name = "timeout",
                  .form = ValueForm::AnyBase,
                  .meaning = "Poll interval in milliseconds.",
                  .required = true},
    AttributeWord{"clear_flag", ValueForm::Switch, "Write 0 back after reading 1."},
    AttributeWord{"inverted", ValueForm::Switch, "Read 1 as inactive."},
};
inline constexpr std::array sysfs_elements{
    ElementWord{"device", "The file.", sysfs_device_attributes, Occurs::Once},
};
inline constexpr BackendVocabulary sysfs_vocabulary{
    .name = "sysfs",
    .meaning = "An attribute file that reads 0 or 1; inputs only.",
    .elements = sysfs_elements,
    .only_inputs = true,
    .is_polled = true};

/// The operation table of ports of kind "sysfs"; gives the port an instance if it has none.
[[nodiscard]] const PortFunctions* sysfs_setup_functions(IoPort* port);
