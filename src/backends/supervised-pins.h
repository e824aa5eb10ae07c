// What the supervised backends have in common: a line that is read by a logic input or routed to an
// analogue measuring circuit by two control pins, and the ranges that judge the measured level.
#pragma once

#include "backends/backend-data.h"
#include "backends/libugpio-utils.h"
#include "port/ioport.h"

/// The pins of a supervised port; any of them may be absent.
struct SupervisedPins {
  GpioPinPtr ioctrl;
  GpioPinPtr sioctrl;
  GpioPinPtr input;
  GpioPinPtr output;
  // Last, so that the watch goes before the pin whose descriptor it polls.
  LogicWatch logic_watch;
};

/// A "range" element while its attributes come in; "upper" completes it.
struct PendingRange {
  OptionalText state;
  gint lower = 0;
};

/// How a backend sets its pins up; what differs between them.
struct PinSetup {
  /// Name of the backend's step in messages about broken preconditions.
  const char* function = nullptr;
  /// Opens a pin; see libugpio-utils.h.
  bool (*open_pin)(GpioPin* pin, PinUse use) = libugpio_port_init_gpio_pin;
  /// Whether a pin that cannot be opened fails the set-up.
  bool open_failure_counts = true;
  /// Whether control pins that cannot be written fail the set-up.
  bool control_failure_counts = true;
  /// Whether the port can do without "sio_ctrl".
  bool sioctrl_optional = false;
  /// Whether "io_ctrl" stays at its input level while the line is measured (it pulls the line up).
  bool ioctrl_always_on = false;
  /// Whether a failed step is also told as a broken precondition, naming the call.
  bool tells_calls = false;
};

/// Takes an attribute of a pin's or a "range" element; false when the element is neither. In a
/// "range" the order of attributes matters: "upper" adds the range to the port with the state and
/// lower limit told before. A refused range is logged.
[[nodiscard]] bool supervised_parse_line(IoPort* port, SupervisedPins& pins, PendingRange& pending,
                                         const char* element, const char* key, const char* value);

/// Requests the port's pins for its type and direction and sets the control pins. An output starts
/// at `start`. False, with a warning, on failure.
[[nodiscard]] bool supervised_setup_pins(IoPort* port, SupervisedPins& pins, Level start,
                                         const PinSetup& how);

/// Routes the line: to the logic input, to the measuring circuit, or (output) to neither.
[[nodiscard]] bool supervised_set_control_pins(IoPort* port, const SupervisedPins& pins,
                                               const PinSetup& how);

/// Turns the pins round; the port already has its new direction. The watch is stopped.
void supervised_turn_pins(IoPort* port, SupervisedPins& pins, Direction direction,
                          const PinSetup& how);

/// The pin that shows the port's logic level: the input pin of an input, else the output pin.
[[nodiscard]] GpioPin* supervised_level_pin(IoPort* port, const SupervisedPins& pins);

/// The level of that pin; unknown when there is none.
[[nodiscard]] Level supervised_pin_level(IoPort* port, const SupervisedPins& pins);

/// Drives the output pin of an output or configurable port.
void supervised_drive_output(IoPort* port, const SupervisedPins& pins, Level level);

// For backends whose records hold their pins as `pins` and have a function
// `take(element, key, value)` for the rest of their description.

/// The slot that takes the description; the record takes what tells of neither pins nor ranges.
template <typename Data>
void supervised_parse_data(IoPort* port, const char* element, const char* key, const char* value) {
  static PendingRange pending; // One per kind of port.
  auto* data = backend_data_ensure<Data>(port);
  if (!supervised_parse_line(port, data->pins, pending, element, key, value)) {
    data->take(element, key, value);
  }
}

/// The table of such a backend: what all of them do alike stands in it.
template <typename Data>
[[nodiscard]] constexpr PortFunctions supervised_table(PortFunctions slots) {
  if (slots.is_supervisable == nullptr) {
    slots.is_supervisable = supervised_is_supervisable;
  }
  slots.get_supervised_ranges = supervised_get_supervised_ranges;
  slots.set_supervised_ranges = supervised_set_supervised_ranges;
  slots.set_state = [](IoPort* port, Level level) {
    supervised_drive_output(port, backend_data_ensure<Data>(port)->pins, level);
  };
  slots.parse_data = [](IoPort* port, const char* element, const char* key, const char* value) {
    supervised_parse_data<Data>(port, element, key, value);
  };
  return backend_table<Data>(slots);
}

/// Releases all pins, keeping their description.
void supervised_close_pins(SupervisedPins& pins);
