// What the supervised backends have in common: a line that is read by a logic input or routed to an
// analogue measuring circuit by two control pins, and the ranges that judge the measured level.
#pragma once

#include "backends/libugpio-utils.h"
#include "port/ioport.h"

#include <array>
#include <utility>

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

/// The pins of a supervised port, of which any may be absent. The operations log what fails.
class SupervisedLine {
public:
  SupervisedLine(IoPort& port, const PinSetup& how) : port_(port), how_(how) {}

  /// Takes an attribute of a pin's or a "range" element; false when the element is neither. In a
  /// "range" the order of attributes matters: "upper" adds the range to the port with the state and
  /// lower limit told before. A refused range is logged.
  [[nodiscard]] bool parse(PendingRange& pending, const char* element, const char* key,
                           const char* value);
  /// As `PinSetup::ioctrl_always_on`.
  void keep_ioctrl_on() { how_.ioctrl_always_on = true; }

  /// Requests the pins for the port's type and direction and sets the control pins. An output
  /// starts at `start`.
  [[nodiscard]] bool setup(Level start);

  /// Routes the line: to the logic input, to the measuring circuit, or (output) to neither.
  [[nodiscard]] bool set_control_pins();

  /// Turns the pins round; the port already has its new direction. The watch is stopped.
  void turn(Direction direction);

  /// Watches the pin that shows the logic level, if that can be watched.
  void watch(GIOCondition of_value_file = G_IO_ERR);
  void unwatch() { logic_watch_.stop(); }

  /// The logic level, of the input pin of an input, else of the output pin; unknown when the port
  /// has no such pin.
  [[nodiscard]] Level level() const;

  /// Drives the output pin of an output or configurable port.
  void drive(Level level) const;

  /// Releases all pins, keeping their description.
  void close();

private:
  [[nodiscard]] const GpioPin* level_pin() const {
    return io_port_input(&port_) ? input_.get() : output_.get();
  }
  [[nodiscard]] bool pins_complete() const;
  [[nodiscard]] bool step_failed(const char* call) const;
  [[nodiscard]] bool open_pin(GpioPin* pin, const char* element, PinUse use,
                              const char* call) const;
  [[nodiscard]] bool setup_level_pins(Level start);
  [[nodiscard]] bool setup_control_pins();
  [[nodiscard]] bool setup_sioctrl();
  void parse_range(PendingRange& pending, const char* key, const char* value);

  static const std::array<PinElement<SupervisedLine>, 4> pin_elements;

  IoPort& port_;
  PinSetup how_;
  GpioPinPtr ioctrl_;
  GpioPinPtr sioctrl_;
  GpioPinPtr input_;
  GpioPinPtr output_;
  // Last, so that the watch goes before the pin whose descriptor it polls.
  LogicWatch logic_watch_;
};

/// The operations that any supervised port has, whatever its converter.
struct SupervisedPort {
  static bool is_supervisable(IoPort* port) { return supervised_is_supervisable(port); }
  static const SupervisedRanges& get_supervised_ranges(IoPort* port) {
    return supervised_get_supervised_ranges(port);
  }
  static bool set_supervised_ranges(IoPort* port, SupervisedRanges ranges, GError** error) {
    return supervised_set_supervised_ranges(port, std::move(ranges), error);
  }
};
