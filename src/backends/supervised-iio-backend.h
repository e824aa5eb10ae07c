// Hardware: a line as in supervised-spi-backend.h, measured by a converter with a kernel driver; or
// ("adc" mode) a converter channel alone.
// Kernel interface: IIO buffered sampling: a high-resolution timer trigger made through configfs,
// one voltage channel, samples read from the device node; pins as "gpio".
// Limits: unsigned samples of up to 32 bits; one port per converter, whose node opens once.
#pragma once

#include "description/common-vocabulary.h"

struct IoPort;
struct PortFunctions;

inline constexpr std::array converter_mode_names{"adc"};
inline constexpr std::array iio_device_attributes{
    AttributeWord{.name = "name",
                  .form = ValueForm::Text,
                  .meaning = "IIO name of the converter.",
                  .required = true},
    AttributeWord{.name = "adc",
                  .form = ValueForm::Text,
                  .meaning = "IIO name of the device whose trigger is set.",
                  .required = true},
    AttributeWord{.name = "hrtimer",
                  .form = ValueForm::Text,
                  .meaning = "Name of the timer trigger to create.",
                  .required = true},
    AttributeWord{"freq", ValueForm::Text, "Samples per second."},
    AttributeWord{"shift", ValueForm::Unsigned, "Further bits to drop from a sample."},
    AttributeWord{"channel", ValueForm::Unsigned, "Number of the voltage channel."},
    AttributeWord{"mode", ValueForm::Words, "adc: no pins, always measured.", converter_mode_names},
};
inline constexpr std::array iio_elements{
    supervised_input_element,
    output_element,
    supervised_io_ctrl_element,
    sio_ctrl_element,
    ElementWord{"device", "The converter and its trigger.", iio_device_attributes},
    range_element,
};
inline constexpr BackendVocabulary iio_vocabulary{
    .name = "iio",
    .meaning = "A supervised line measured by an IIO converter in buffered mode.",
    .elements = iio_elements,
    .pins = supervised_pin_needs,
    .refuses_other_pin = true};

/// The operation table of ports of kind "iio"; gives the port an instance if it has none.
[[nodiscard]] const PortFunctions* iio_setup_functions(IoPort* port);
