// Hardware: an SPI analogue-to-digital converter whose level is judged by bands with hysteresis.
// Kernel interface: spidev, polled; mode, word size and speed stay as the driver has them.
// Limits: inputs only, no supervision; levels are 0-255.
#pragma once

#include "description/vocabulary.h"

struct IoPort;
struct PortFunctions;

inline constexpr std::array spiadc_device_attributes{
    AttributeWord{.name = "device",
                  .form = ValueForm::Text,
                  .meaning = "Path of the spidev node.",
                  .required = true},
    AttributeWord{.name = "timeout",
                  .form = ValueForm::AnyBase,
                  .meaning = "Poll interval in milliseconds.",
                  .required = true},
    AttributeWord{"address", ValueForm::AnyBase, "Command byte of the converter."},
    AttributeWord{"inverted", ValueForm::Switch, "Active outside the bands."},
};
inline constexpr std::array spiadc_band_attributes{
    AttributeWord{"active_min", ValueForm::AnyBase, "Lowest active level."},
    AttributeWord{"active_max", ValueForm::AnyBase, "Highest active level."},
    AttributeWord{"hysteresis", ValueForm::AnyBase,
                  "How far past an edge the level must go to change the state."},
};
inline constexpr auto spiadc_range_form = ValueForm::Text;
inline constexpr std::array spiadc_elements{
    ElementWord{"device", "The converter.", spiadc_device_attributes, Occurs::Once},
    ElementWord{"range",
                "Opens a band, one per attribute: give it exactly one, of any name.",
                {},
                Occurs::BeforeNext,
                &spiadc_range_form},
    ElementWord{"input", "The newest band.", spiadc_band_attributes},
};
inline constexpr BackendVocabulary spiadc_vocabulary{
    .name = "spiadc",
    .meaning = "An SPI converter whose level is judged by bands with hysteresis; inputs only.",
    .elements = spiadc_elements,
    .only_inputs = true,
    .is_polled = true};

/// The operation table of ports of kind "spiadc"; gives the port an instance if it has none.
[[nodiscard]] const PortFunctions* spiadc_setup_functions(IoPort* port);
