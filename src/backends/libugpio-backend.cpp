#include "backends/libugpio-backend.h"

#include "backends/backend-data.h"
#include "backends/libugpio-utils.h"
#include "platform/checks.h"
#include "platform/log.h"

namespace {

struct LibugpioPortData {
  GpioPinPtr input;
  GpioPinPtr output;
  GpioPinPtr io_ctrl;
  // Last, so that the watch goes before the pin whose descriptor it polls.
  LogicWatch watch;
};

constexpr std::array pin_elements{
    PinElement<LibugpioPortData>{.element = "input", .pin = &LibugpioPortData::input},
    PinElement<LibugpioPortData>{.element = "output", .pin = &LibugpioPortData::output},
    PinElement<LibugpioPortData>{.element = "io_ctrl", .pin = &LibugpioPortData::io_ctrl},
};

void libugpio_port_parse_data(IoPort* port, const char* element, const char* key,
                              const char* value) {
  auto* data = backend_data_ensure<LibugpioPortData>(port);
  if (!libugpio_parse_pin_element(pin_elements, *data, element, key, value)) {
    g_warning("%sCould not parse backend data!\n", log_prefix);
  }
}

GpioPin* current_pin(IoPort* port) {
  const auto* data = backend_data<LibugpioPortData>(port);
  return io_port_input(port) ? data->input.get() : data->output.get();
}

bool init_pin(IoPort* port, GpioPin* pin, const char* element, PinUse use) {
  if (pin == nullptr) {
    g_warning("%sPort %d has no '%s' pin", log_prefix, port->number, element);
    return false;
  }
  return libugpio_port_init_gpio_pin(pin, use);
}

bool init_pins(IoPort* port, LibugpioPortData* data, Level start) {
  const bool output = port->direction == Direction::Output;
  switch (port->type) {
  case PORT_INPUT:
    return init_pin(port, data->input.get(), "input", PinUse::Input);
  case PORT_OUTPUT:
    return init_pin(port, data->output.get(), "output", output_at(start));
  case PORT_IO_CTRL:
    return init_pin(port, data->input.get(), "input", PinUse::Input)
           && init_pin(port, data->output.get(), "output",
                       output ? output_at(start) : PinUse::LowOutput)
           && init_pin(port, data->io_ctrl.get(), "io_ctrl", output_at(level_of(output)));
  default:
    return false;
  }
}

// A port that failed must not keep others from its pins.
void release_pins(LibugpioPortData* data) {
  for (const auto* pin : {&data->input, &data->output, &data->io_ctrl}) {
    libugpio_close_gpio_pin(pin->get());
  }
}

bool libugpio_port_setup(IoPort* port, Level start) {
  auto* data = backend_data<LibugpioPortData>(port);
  g_assert(data != NULL);
  if (init_pins(port, data, start)) {
    return true;
  }
  release_pins(data);
  WEXD_RETURN_VAL_IF_FAIL(port->optional, false);
  return false;
}

Level libugpio_port_get_state(IoPort* port) {
  const GpioPin* const pin = current_pin(port);
  return level_of(pin != nullptr && libugpio_get_gpio_pin(pin) != Level::Low);
}

void libugpio_port_set_state(IoPort* port, Level level) {
  const GpioPin* const pin = backend_data<LibugpioPortData>(port)->output.get();
  g_assert(pin != NULL);
  if (ugpio_set_value(pin->handle, level == Level::High) == -1) {
    g_warning("%sFailed to set state on port!\n", log_prefix);
  }
}

bool libugpio_port_set_watch(IoPort* port) {
  auto* data = backend_data<LibugpioPortData>(port);
  return data != nullptr && data->watch.start(port, current_pin(port));
}

void switch_line_driver(IoPort* port, Direction direction) {
  const GpioPin* const pin = backend_data<LibugpioPortData>(port)->io_ctrl.get();
  if (pin == nullptr || ugpio_set_value(pin->handle, direction == Direction::Output) == -1) {
    g_warning("%sCouldn't change direction on port!\n", log_prefix);
  }
}

// The output pin is quiet whenever the line driver points the other way.
void libugpio_port_set_direction(IoPort* port, Direction direction) {
  backend_data<LibugpioPortData>(port)->watch.stop();
  if (direction == Direction::Input) {
    libugpio_port_set_state(port, Level::Low);
    switch_line_driver(port, direction);
  } else {
    switch_line_driver(port, direction);
    libugpio_port_set_state(port, level_of(port->activelow_output));
  }
}

constexpr PortFunctions functions = backend_table<LibugpioPortData>({
    .setup = libugpio_port_setup,
    .get_state = libugpio_port_get_state,
    .set_state = libugpio_port_set_state,
    .set_watch = libugpio_port_set_watch,
    .set_direction = libugpio_port_set_direction,
    .parse_data = libugpio_port_parse_data,
});
static_assert(port_functions_valid(functions));

} // namespace

const PortFunctions* libugpio_setup_functions(IoPort* port) {
  return backend_attach<LibugpioPortData>(port, functions);
}
