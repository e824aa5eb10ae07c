#include "backends/supervised-pins.h"

#include "platform/kernel-parts.h"
#include "platform/log.h"
#include "platform/numbers.h"
#include "platform/ugpio-extras.h"

#include <array>
#include <tuple>

namespace {

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
    remark_missing_kernel_part({&ugpio_kernel_part(), 1});
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

} // namespace

constexpr std::array<PinElement<SupervisedLine>, 4> SupervisedLine::pin_elements{{
    {.element = "io_ctrl", .pin = &SupervisedLine::ioctrl_},
    {.element = "sio_ctrl", .pin = &SupervisedLine::sioctrl_},
    {.element = "input", .pin = &SupervisedLine::input_},
    {.element = "output", .pin = &SupervisedLine::output_},
}};

bool SupervisedLine::pins_complete() const {
  const bool input = input_ != nullptr;
  const bool output = output_ != nullptr;
  if (port_.type == PORT_IO_CTRL) {
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
bool SupervisedLine::step_failed(const char* call) const {
  if (how_.tells_calls) {
    g_return_if_fail_warning(G_LOG_DOMAIN, how_.function, call);
  }
  return false;
}

bool SupervisedLine::open_pin(GpioPin* pin, const char* element, PinUse use,
                              const char* call) const {
  if (pin == nullptr) {
    g_warning("%sPort %d has no '%s' pin", log_prefix, port_.number, element);
    return step_failed(call);
  }
  return how_.open_pin(pin, use) || !how_.open_failure_counts || step_failed(call);
}

bool SupervisedLine::setup_sioctrl() {
  if (sioctrl_ != nullptr) {
    return open_sioctrl(sioctrl_.get());
  }
  if (!how_.sioctrl_optional) {
    g_assertion_message_expr(G_LOG_DOMAIN, __FILE__, __LINE__, how_.function,
                             "data->sioctrl != NULL");
  }
  return true;
}

bool SupervisedLine::setup_level_pins(Level start) {
  if (io_port_has_input_side(&port_)
      && !open_pin(input_.get(), "input", PinUse::Input,
                   "libugpio_port_init_gpio_pin(data->input, TRUE, FALSE)")) {
    return false;
  }
  return !io_port_has_output_side(&port_)
         || open_pin(output_.get(), "output",
                     io_port_direction_input(&port_) ? PinUse::LowOutput : output_at(start),
                     "libugpio_port_init_gpio_pin( data->output, FALSE, "
                     "io_port_direction_input(port) ? FALSE : state)");
}

bool SupervisedLine::setup_control_pins() {
  if (!open_pin(ioctrl_.get(), "io_ctrl", output_at(level_of(io_port_direction_input(&port_))),
                "libugpio_port_init_gpio_pin( data->ioctrl, FALSE, "
                "io_port_direction_input(port) ? 1 : 0)")) {
    return false;
  }
  if (!setup_sioctrl()) {
    return false;
  }
  return set_control_pins() || !how_.control_failure_counts
         || step_failed("iio_set_control_pins(port)");
}

void SupervisedLine::parse_range(PendingRange& pending, const char* key, const char* value) {
  if (g_str_equal(key, "state")) {
    pending.state = value;
  } else if (g_str_equal(key, "lower")) {
    pending.lower = number_of<gint>(value);
  } else if (g_str_equal(key, "upper")) {
    const auto upper = number_of<gint>(value);
    g_autoptr(GError) error = nullptr;
    if (!io_port_add_supervised_range(&port_, c_str_or_null(pending.state), pending.lower, upper,
                                      &error)) {
      g_warning("%sFailed to configure port: %s\n", log_prefix,
                error != nullptr ? error->message : "ranges refused");
    }
    pending = {};
  }
}

bool SupervisedLine::parse(PendingRange& pending, const char* element, const char* key,
                           const char* value) {
  if (g_str_equal(element, "range")) {
    parse_range(pending, key, value);
    return true;
  }
  return libugpio_parse_pin_element(pin_elements, *this, element, key, value);
}

bool SupervisedLine::setup(Level start) {
  return pins_complete() && setup_level_pins(start)
         && (!io_port_has_input_side(&port_) || setup_control_pins());
}

bool SupervisedLine::set_control_pins() {
  const auto levels = control_levels(&port_, how_);
  if (!libugpio_set_gpio_pin(ioctrl_.get(), levels.ioctrl)) {
    g_warning("%sFailed to set ioctrl pin", log_prefix);
    return false;
  }
  if (sioctrl_ != nullptr && !libugpio_set_gpio_pin(sioctrl_.get(), levels.sioctrl)) {
    g_warning("%sFailed to set sioctrl pin", log_prefix);
    return false;
  }
  return true;
}

// The output pin is quiet whenever the line is routed to be read.
void SupervisedLine::turn(Direction direction) {
  logic_watch_.stop();
  if (direction == Direction::Input) {
    drive(Level::Low);
  }
  if (ioctrl_ != nullptr) {
    std::ignore = set_control_pins();
  }
  if (direction == Direction::Output) {
    drive(level_of(port_.activelow_output));
  }
}

void SupervisedLine::watch(GIOCondition of_value_file) {
  std::ignore = logic_watch_.start(&port_, level_pin(), of_value_file);
}

Level SupervisedLine::level() const {
  const GpioPin* const pin = level_pin();
  return pin != nullptr ? libugpio_get_gpio_pin(pin) : Level::Unknown;
}

void SupervisedLine::drive(Level level) const {
  if (io_port_has_output_side(&port_) && output_ != nullptr) {
    std::ignore = libugpio_set_gpio_pin(output_.get(), level);
  }
}

void SupervisedLine::close() {
  logic_watch_.stop();
  for (const auto& entry : pin_elements) {
    libugpio_close_gpio_pin((this->*entry.pin).get());
  }
}
