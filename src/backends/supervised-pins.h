// What the supervised backends have in common: a line that is read by a logic input or routed to an
// analogue measuring circuit by two control pins, and the ranges that judge the measured level.
#pragma once

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
  const char* function;
  /// Opens a pin; see libugpio-utils.h.
  bool (*open_pin)(GpioPin* pin, bool input, bool value);
  /// Whether a pin that cannot be opened fails the set-up.
  bool open_failure_counts;
  /// Whether control pins that cannot be written fail the set-up.
  bool control_failure_counts;
  /// Whether the port can do without "sio_ctrl".
  bool sioctrl_optional;
  /// Whether "io_ctrl" stays at its input level while the line is measured (it pulls the line up).
  bool ioctrl_always_on;
  /// Whether a failed step is also told as a broken precondition, naming the call.
  bool tells_calls;
};

/// Takes an attribute of a pin's element; false when the element is no pin.
bool supervised_parse_pin(SupervisedPins& pins, const char* element, const char* key,
                          const char* value);

/// Takes an attribute of a "range" element. The order of attributes matters: "upper" adds the range
/// to the port with the state and lower limit told before. A refused range is logged.
void supervised_parse_range(PendingRange& pending, IoPort* port, const char* key,
                            const char* value);

/// Requests the port's pins for its type and direction and sets the control pins. An output starts
/// at `state`. False, with a warning, on failure.
bool supervised_setup_pins(IoPort* port, SupervisedPins& pins, bool state, const PinSetup& how);

/// Routes the line: to the logic input, to the measuring circuit, or (output) to neither.
bool supervised_set_control_pins(IoPort* port, const SupervisedPins& pins, const PinSetup& how);

/// Turns the pins round; the port already has its new direction. The watch is stopped.
void supervised_turn_pins(IoPort* port, SupervisedPins& pins, bool input, const PinSetup& how);

/// The pin that shows the port's logic level: the input pin of an input, else the output pin.
GpioPin* supervised_level_pin(IoPort* port, const SupervisedPins& pins);

/// The raw level of that pin as libugpio gives it; unknown when there is none.
guint supervised_pin_level(IoPort* port, const SupervisedPins& pins);

/// Drives the output pin of an output or configurable port.
void supervised_drive_output(IoPort* port, const SupervisedPins& pins, bool value);

/// Releases all pins, keeping their description.
void supervised_close_pins(SupervisedPins& pins);
