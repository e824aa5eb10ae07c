#include "backends/supervised-pins.h"

#include "platform/kernel-parts.h"
#include "platform/log.h"
#include "platform/numbers.h"
#include "platform/ugpio-extras.h"

#include <array>
#include <cstdlib>
#include <tuple>

namespace {

constexpr std::array pin_elements{
    PinElement<SupervisedPins>{.element = "io_ctrl", .pin = &SupervisedPins::ioctrl},
    PinElement<SupervisedPins>{.element = "sio_ctrl", .pin = &SupervisedPins::sioctrl},
    PinElement<SupervisedPins>{.element = "input", .pin = &SupervisedPins::input},
    PinElement<SupervisedPins>{.element = "output", .pin = &SupervisedPins::output},
};

bool pins_complete(const IoPort* port, const SupervisedPins& pins) {
  const bool input = pins.input != nullptr;
  const bool output = pins.output != nullptr;
  if (port->type == PORT_IO_CTRL) {
    if (input && output) {
      return true;
    }
    g_warning("%sSupervised IO port should have both 'input' and 'output' pins.", log_prefix);
    return false;
  }
  if (input != output) {
    return true;
  }
  g_warning("%sLimited IO port should only have either 'input' or 'output' pin.", log_prefix);
  return false;
}

// A step that failed, told as the broken precondition that it is to some backends.
bool step_failed(const PinSetup& how, const char* call) {
  if (how.tells_calls) {
    g_return_if_fail_warning(G_LOG_DOMAIN, how.function, call);
  }
  return false;
}

bool open_pin(IoPort* port, GpioPin* pin, const char* element, PinUse use, const PinSetup& how,
              const char* call) {
  if (pin == nullptr) {
    g_warning("%sPort %d has no '%s' pin", log_prefix, port->number, element);
    return step_failed(how, call);
  }
  return how.open_pin(pin, use) || !how.open_failure_counts || step_failed(how, call);
}

ugpio_t* request_as_it_stands(const GpioPin* pin) {
  return pin->name ? ugpio_request_named(c_str_or_null(pin->name))
                   : ugpio_request(static_cast<guint>(pin->number), "sioctrl");
}

// The pin is requested without a direction: one that is in use keeps its level. A freshly exported
// line is an input, though, and could never be driven.
bool open_sioctrl(GpioPin* pin) {
  const char* const name = c_str_or_null(pin->name);
  libugpio_close_gpio_pin(pin);
  pin->handle = request_as_it_stands(pin);
  if (pin->handle == nullptr) {
    remark_missing_kernel_part(gpio_kernel_parts);
    g_warning("%sRequest for gpio pin %s failed.", log_prefix, name);
    return false;
  }
  if (ugpio_full_open(pin->handle) == -1) {
    g_warning("%sFailed to open gpio pin %s\n", log_prefix, name);
    return false;
  }
  if (!libugpio_apply_activelow(pin)) {
    return false;
  }
  if (ugpio_get_direction(pin->handle) == 0) {
    ugpio_direction_output(pin->handle, pin->activelow == PinActiveLow::Low ? 1 : 0);
  }
  return true;
}

bool setup_sioctrl(SupervisedPins& pins, const PinSetup& how) {
  if (pins.sioctrl != nullptr) {
    return open_sioctrl(pins.sioctrl.get());
  }
  if (!how.sioctrl_optional) {
    g_assertion_message_expr(G_LOG_DOMAIN, __FILE__, __LINE__, how.function,
                             "data->sioctrl != NULL");
  }
  return true;
}

bool setup_level_pins(IoPort* port, SupervisedPins& pins, Level start, const PinSetup& how) {
  if (io_port_has_input_side(port)
      && !open_pin(port, pins.input.get(), "input", PinUse::Input, how,
                   "libugpio_port_init_gpio_pin(data->input, TRUE, FALSE)")) {
    return false;
  }
  return !io_port_has_output_side(port)
         || open_pin(port, pins.output.get(), "output",
                     io_port_direction_input(port) ? PinUse::LowOutput : output_at(start), how,
                     "libugpio_port_init_gpio_pin( data->output, FALSE, "
                     "io_port_direction_input(port) ? FALSE : state)");
}

bool setup_control_pins(IoPort* port, SupervisedPins& pins, const PinSetup& how) {
  if (!open_pin(port, pins.ioctrl.get(), "io_ctrl",
                output_at(level_of(io_port_direction_input(port))), how,
                "libugpio_port_init_gpio_pin( data->ioctrl, FALSE, "
                "io_port_direction_input(port) ? 1 : 0)")) {
    return false;
  }
  if (!setup_sioctrl(pins, how)) {
    return false;
  }
  return supervised_set_control_pins(port, pins, how) || !how.control_failure_counts
         || step_failed(how, "iio_set_control_pins(port)");
}

struct ControlLevels {
  Level ioctrl;
  Level sioctrl;
};

ControlLevels control_levels(IoPort* port, const PinSetup& how) {
  if (port->type != PORT_IO_CTRL) {
    g_assert(port->type == PORT_INPUT);
  } else if (port->direction == Direction::Output) {
    return {.ioctrl = Level::Low, .sioctrl = Level::Low};
  }
  const bool supervised = io_port_supervised_input(port);
  return {.ioctrl = level_of(how.ioctrl_always_on || !supervised), .sioctrl = level_of(supervised)};
}

void parse_range(PendingRange& pending, IoPort* port, const char* key, const char* value) {
  if (g_str_equal(key, "state")) {
    pending.state = value;
  } else if (g_str_equal(key, "lower")) {
    pending.lower = number_of<gint>(value);
  } else if (g_str_equal(key, "upper")) {
    const auto upper = number_of<gint>(value);
    g_autoptr(GError) error = nullptr;
    if (!io_port_add_supervised_range(port, c_str_or_null(pending.state), pending.lower, upper,
                                      &error)) {
      g_warning("%sFailed to configure port: %s\n", log_prefix,
                error != nullptr ? error->message : "ranges refused");
    }
    pending = {};
  }
}

} // namespace

bool supervised_parse_line(IoPort* port, SupervisedPins& pins, PendingRange& pending,
                           const char* element, const char* key, const char* value) {
  if (g_str_equal(element, "range")) {
    parse_range(pending, port, key, value);
    return true;
  }
  return libugpio_parse_pin_element(pin_elements, pins, element, key, value);
}

bool supervised_setup_pins(IoPort* port, SupervisedPins& pins, Level start, const PinSetup& how) {
  return pins_complete(port, pins) && setup_level_pins(port, pins, start, how)
         && (!io_port_has_input_side(port) || setup_control_pins(port, pins, how));
}

bool supervised_set_control_pins(IoPort* port, const SupervisedPins& pins, const PinSetup& how) {
  const auto levels = control_levels(port, how);
  if (!libugpio_set_gpio_pin(pins.ioctrl.get(), levels.ioctrl)) {
    g_warning("%sFailed to set ioctrl pin", log_prefix);
    return false;
  }
  if (pins.sioctrl != nullptr && !libugpio_set_gpio_pin(pins.sioctrl.get(), levels.sioctrl)) {
    g_warning("%sFailed to set sioctrl pin", log_prefix);
    return false;
  }
  return true;
}

// The output pin is quiet whenever the line is routed to be read.
void supervised_turn_pins(IoPort* port, SupervisedPins& pins, Direction direction,
                          const PinSetup& how) {
  pins.logic_watch.stop();
  if (direction == Direction::Input) {
    supervised_drive_output(port, pins, Level::Low);
  }
  if (pins.ioctrl != nullptr) {
    std::ignore = supervised_set_control_pins(port, pins, how);
  }
  if (direction == Direction::Output) {
    supervised_drive_output(port, pins, level_of(port->activelow_output));
  }
}

GpioPin* supervised_level_pin(IoPort* port, const SupervisedPins& pins) {
  return io_port_input(port) ? pins.input.get() : pins.output.get();
}

Level supervised_pin_level(IoPort* port, const SupervisedPins& pins) {
  const GpioPin* const pin = supervised_level_pin(port, pins);
  return pin != nullptr ? libugpio_get_gpio_pin(pin) : Level::Unknown;
}

void supervised_drive_output(IoPort* port, const SupervisedPins& pins, Level level) {
  if (io_port_has_output_side(port) && pins.output != nullptr) {
    std::ignore = libugpio_set_gpio_pin(pins.output.get(), level);
  }
}

void supervised_close_pins(SupervisedPins& pins) {
  pins.logic_watch.stop();
  for (const auto& entry : pin_elements) {
    libugpio_close_gpio_pin((pins.*entry.pin).get());
  }
}
