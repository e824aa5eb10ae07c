// Hardware: a line with a logic input, an optional output, two control pins, and an SPI
// analogue-to-digital converter that measures the line while it is supervised.
// Kernel interface: pins as "gpio", spidev (16 bits a word), polled every 250 ms while supervised.
// Limits: ports numbered 0-5; levels are 0-255.
#pragma once

#include "description/common-vocabulary.h"

struct IoPort;
struct PortFunctions;

inline constexpr std::array spi_device_attributes{
    AttributeWord{.name = "path",
                  .form = ValueForm::Text,
                  .meaning = "Path of the spidev node.",
                  .required = true},
};
inline constexpr std::array spi_speed_attributes{
    AttributeWord{.name = "value",
                  .form = ValueForm::AnyBase,
                  .meaning = "Hertz; without it the driver's.",
                  .required = true},
};
// Its name is of no matter to the daemon.
inline constexpr auto spi_address_form = ValueForm::Hex;
inline constexpr std::array spi_address_attributes{
    AttributeWord{.name = "value",
                  .form = spi_address_form,
                  .meaning = "Command byte, hexadecimal.",
                  .required = true},
};
inline constexpr std::array spi_elements{
    supervised_input_element,
    output_element,
    supervised_io_ctrl_element,
    sio_ctrl_element,
    ElementWord{"device", "The converter.", spi_device_attributes},
    ElementWord{"speed", "The converter's clock.", spi_speed_attributes},
    ElementWord{"address", "The converter's command.", spi_address_attributes, Occurs::AtMostOnce,
                &spi_address_form},
    range_element,
};
inline constexpr BackendVocabulary spi_vocabulary{
    .name = "spi",
    .meaning = "A supervised line measured by an SPI converter; port numbers 0 to 5.",
    .elements = spi_elements,
    .pins = supervised_pin_needs,
    .refuses_other_pin = true,
    .number_limit = 6};

/// The operation table of ports of kind "spi"; gives the port an instance if it has none.
[[nodiscard]] const PortFunctions* spi_setup_functions(IoPort* port);
