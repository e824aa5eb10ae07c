// Hardware: pins of the processor or of an expander: one in, one out, and for a configurable port
// one that switches the external line driver.
// Kernel interface: sysfs GPIO or line requests on the chips, through libugpio.
// Limits: no supervision.
#pragma once

#include "description/common-vocabulary.h"

struct IoPort;
struct PortFunctions;

inline constexpr std::array gpio_elements{
    ElementWord{"input", "Pin that reads the line.", pin_attributes},
    output_element,
    ElementWord{"io_ctrl", "Pin that switches the line driver of an io_ctrl port: high is output.",
                pin_attributes},
};
inline constexpr std::array gpio_pin_needs{
    PinNeed{.element = "input", .of_inputs = true, .of_outputs = false, .of_configurables = true},
    PinNeed{.element = "output", .of_inputs = false, .of_outputs = true, .of_configurables = true},
    PinNeed{
        .element = "io_ctrl", .of_inputs = false, .of_outputs = false, .of_configurables = true},
};
inline constexpr BackendVocabulary gpio_vocabulary{
    .name = "gpio", .meaning = "GPIO pins.", .elements = gpio_elements, .pins = gpio_pin_needs};

/// The operation table of ports of kind "gpio"; gives the port an instance if it has none.
[[nodiscard]] const PortFunctions* libugpio_setup_functions(IoPort* port);
