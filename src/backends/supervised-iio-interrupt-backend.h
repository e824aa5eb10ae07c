// Hardware: a line as in supervised-spi-backend.h, measured by a converter that can raise an event
// when a level is crossed; or ("adc" mode) a converter channel alone.
// Kernel interface: IIO threshold events armed around the range that holds the level, so that the
// daemon sleeps until the level leaves it; the raw value from sysfs; pins as "gpio".
// Limits: of several ports on one device, only the first to be watched gets its events.
#pragma once

#include "backends/supervised-iio-backend.h"
#include "description/common-vocabulary.h"

struct IoPort;
struct PortFunctions;

inline constexpr std::array iio_int_device_attributes{
    AttributeWord{.name = "driver",
                  .form = ValueForm::Text,
                  .meaning = "IIO name of the converter.",
                  .required = true},
    AttributeWord{"channel", ValueForm::Unsigned, "Number of the channel."},
    AttributeWord{"channel_name", ValueForm::Text,
                  "Name of the channel; without it \"voltage\" and its number."},
    AttributeWord{"chan_extend_name", ValueForm::Text, "Extension of the channel's name."},
    AttributeWord{"hysteresis", ValueForm::Unsigned,
                  "How far beyond its range a level must go, in counts."},
    AttributeWord{"lower_limit", ValueForm::Decimal, "At or below this level the line is polled."},
    AttributeWord{"upper_limit", ValueForm::Decimal, "At or above this level the line is polled."},
    AttributeWord{"limit_timeout", ValueForm::Unsigned,
                  "Poll interval beyond a limit, in milliseconds (default 1000)."},
    AttributeWord{"bitshift", ValueForm::Unsigned, "Bits to drop from a reading."},
    AttributeWord{"integration_time", ValueForm::Decimal, "Microseconds, for a proximity channel."},
    AttributeWord{"one_threshold", ValueForm::Switch, "The converter has only one threshold."},
    AttributeWord{"mode", ValueForm::Words, "adc: no pins, always measured.", converter_mode_names},
    AttributeWord{"shared_samplefreq", ValueForm::Text, "Sampling frequency of the device."},
    AttributeWord{"shared_thresh_either_period", ValueForm::Text,
                  "Period of its threshold events."},
    AttributeWord{"cache_ad_value", ValueForm::SwitchOff, "false: every readout measures anew."},
    AttributeWord{"pullup_when_supervised", ValueForm::Switch, "Keep io_ctrl on while supervised."},
};
inline constexpr std::array iio_int_elements{
    supervised_input_element,
    output_element,
    supervised_io_ctrl_element,
    sio_ctrl_element,
    ElementWord{"device", "The converter.", iio_int_device_attributes},
    range_element,
};
inline constexpr BackendVocabulary iio_int_vocabulary{
    .name = "iio-interrupt",
    .meaning = "A supervised line measured by an IIO converter with threshold events.",
    .elements = iio_int_elements,
    .pins = std::span(supervised_pin_needs).first<3>(),
    .refuses_other_pin = true};

/// The operation table of ports of kind "iio-interrupt"; gives the port an instance if it has none.
[[nodiscard]] const PortFunctions* iio_int_setup_functions(IoPort* port);
