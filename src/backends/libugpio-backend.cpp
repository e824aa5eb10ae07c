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

bool init_pin(IoPort* port, GpioPin* pin, const char* element, bool input, bool value) {
  if (pin == nullptr) {
    g_warning("%sPort %d has no '%s' pin", log_prefix, port->number, element);
    return false;
  }
  return libugpio_port_init_gpio_pin(pin, input, value);
}

bool init_pins(IoPort* port, LibugpioPortData* data, bool state) {
  const bool input = port->direction;
  switch (port->type) {
  case PORT_INPUT:
    return init_pin(port, data->input.get(), "input", true, false);
  case PORT_OUTPUT:
    return init_pin(port, data->output.get(), "output", false, state);
  case PORT_IO_CTRL:
    return init_pin(port, data->input.get(), "input", true, false)
           && init_pin(port, data->output.get(), "output", false, !input && state)
           && init_pin(port, data->io_ctrl.get(), "io_ctrl", false, !input);
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

gboolean libugpio_port_setup(IoPort* port, gboolean state) {
  auto* data = backend_data<LibugpioPortData>(port);
  g_assert(data != NULL);
  if (init_pins(port, data, state)) {
    return TRUE;
  }
  release_pins(data);
  WEXD_RETURN_VAL_IF_FAIL(port->optional, FALSE);
  return FALSE;
}

guint libugpio_port_get_state(IoPort* port) {
  const GpioPin* const pin = current_pin(port);
  return pin != nullptr && ugpio_get_value(pin->handle) != 0 ? 1 : 0;
}

void libugpio_port_set_state(IoPort* port, gint value) {
  const GpioPin* const pin = backend_data<LibugpioPortData>(port)->output.get();
  g_assert(pin != NULL);
  if (ugpio_set_value(pin->handle, value) == -1) {
    g_warning("%sFailed to set state on port!\n", log_prefix);
  }
}

gboolean libugpio_port_set_watch(IoPort* port) {
  auto* data = backend_data<LibugpioPortData>(port);
  return data != nullptr && data->watch.start(port, current_pin(port));
}

void switch_line_driver(IoPort* port, bool output) {
  const GpioPin* const pin = backend_data<LibugpioPortData>(port)->io_ctrl.get();
  if (pin == nullptr || ugpio_set_value(pin->handle, output) == -1) {
    g_warning("%sCouldn't change direction on port!\n", log_prefix);
  }
}

// The output pin is quiet whenever the line driver points the other way.
void libugpio_port_set_direction(IoPort* port, gboolean input) {
  backend_data<LibugpioPortData>(port)->watch.stop();
  if (input) {
    libugpio_port_set_state(port, 0);
    switch_line_driver(port, false);
  } else {
    switch_line_driver(port, true);
    libugpio_port_set_state(port, port->activelow_output ? 1 : 0);
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
