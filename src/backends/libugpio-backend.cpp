#include "backends/libugpio-backend.h"

#include "backends/hardware.h"
#include "backends/libugpio-utils.h"
#include "platform/checks.h"
#include "platform/log.h"

namespace {

// The fatal message names the step as operators know it.
void libugpio_port_set_state(const GpioPin* pin, Level level) {
  g_assert(pin != NULL);
  if (ugpio_set_value(pin->handle, level == Level::High) == -1) {
    g_warning("%sFailed to set state on port!\n", log_prefix);
  }
}

class LibugpioPort {
public:
  explicit LibugpioPort(IoPort& port) : port_(port) {}

  bool setup(Level start);
  [[nodiscard]] Level get_state() const;
  void set_state(Level level) const { libugpio_port_set_state(output_.get(), level); }
  bool set_watch() { return watch_.start(&port_, current_pin()); }
  void set_direction(Direction direction);
  void parse_data(const char* element, const char* key, const char* value);

private:
  [[nodiscard]] const GpioPin* current_pin() const {
    return io_port_input(&port_) ? input_.get() : output_.get();
  }
  [[nodiscard]] bool init_pins(Level start);
  [[nodiscard]] bool init_pin(GpioPin* pin, const char* element, PinUse use) const;
  void switch_line_driver(Direction direction) const;

  IoPort& port_;
  GpioPinPtr input_;
  GpioPinPtr output_;
  GpioPinPtr io_ctrl_;
  // Last, so that the watch goes before the pin whose descriptor it polls.
  LogicWatch watch_;
};

void LibugpioPort::parse_data(const char* element, const char* key, const char* value) {
  static constexpr std::array pin_elements{
      PinElement<LibugpioPort>{.element = "input", .pin = &LibugpioPort::input_},
      PinElement<LibugpioPort>{.element = "output", .pin = &LibugpioPort::output_},
      PinElement<LibugpioPort>{.element = "io_ctrl", .pin = &LibugpioPort::io_ctrl_},
  };
  if (!libugpio_parse_pin_element(pin_elements, *this, element, key, value)) {
    g_warning("%sCould not parse backend data!\n", log_prefix);
  }
}

bool LibugpioPort::init_pin(GpioPin* pin, const char* element, PinUse use) const {
  if (pin == nullptr) {
    g_warning("%sPort %d has no '%s' pin", log_prefix, port_.number, element);
    return false;
  }
  return libugpio_port_init_gpio_pin(pin, use);
}

bool LibugpioPort::init_pins(Level start) {
  const bool output = port_.direction == Direction::Output;
  switch (port_.type) {
  case PORT_INPUT:
    return init_pin(input_.get(), "input", PinUse::Input);
  case PORT_OUTPUT:
    return init_pin(output_.get(), "output", output_at(start));
  case PORT_IO_CTRL:
    return init_pin(input_.get(), "input", PinUse::Input)
           && init_pin(output_.get(), "output", output ? output_at(start) : PinUse::LowOutput)
           && init_pin(io_ctrl_.get(), "io_ctrl", output_at(level_of(output)));
  default:
    return false;
  }
}

// The critical message names the step as operators know it.
bool libugpio_port_setup(const IoPort* port) {
  WEXD_RETURN_VAL_IF_FAIL(port->optional, false);
  return false;
}

bool LibugpioPort::setup(Level start) {
  if (init_pins(start)) {
    return true;
  }
  // A port that failed must not keep others from its pins.
  for (const auto* pin : {&input_, &output_, &io_ctrl_}) {
    libugpio_close_gpio_pin(pin->get());
  }
  return libugpio_port_setup(&port_);
}

Level LibugpioPort::get_state() const {
  const GpioPin* const pin = current_pin();
  return level_of(pin != nullptr && libugpio_get_gpio_pin(pin) != Level::Low);
}

void LibugpioPort::switch_line_driver(Direction direction) const {
  if (io_ctrl_ == nullptr
      || ugpio_set_value(io_ctrl_->handle, direction == Direction::Output) == -1) {
    g_warning("%sCouldn't change direction on port!\n", log_prefix);
  }
}

// The output pin is quiet whenever the line driver points the other way.
void LibugpioPort::set_direction(Direction direction) {
  watch_.stop();
  if (direction == Direction::Input) {
    set_state(Level::Low);
    switch_line_driver(direction);
  } else {
    switch_line_driver(direction);
    set_state(level_of(port_.activelow_output));
  }
}

} // namespace

const PortFunctions* libugpio_setup_functions(IoPort* port) {
  return hardware_attach<LibugpioPort>(port);
}
