#include "fuzz-ports.h"

#include "support/fake-backend.h"

namespace {

void add_port(gint number, PortType type, const char* name, BackendKind backend,
              const char* property) {
  const IoPortRef port = io_port_new();
  port->type = type;
  port->number = number;
  port->name = name;
  io_port_add_property(port.get(), "ioport", "true");
  if (property != nullptr) {
    io_port_add_property(port.get(), property, "true");
  }
  std::ignore = io_port_set_backend(port.get(), backend);
  fuzz_require(io_port_setup(port.get()));
  io_port_list_add(port.get());
}

} // namespace

void fuzz_add_ports() {
  // A list of what is asked of the hardware in millions of runs would take all memory.
  fake_backend::listing = false;
  add_port(0, PORT_INPUT, "in", BACKEND_GPIO, nullptr);
  add_port(1, PORT_OUTPUT, "out", BACKEND_GPIO, nullptr);
  add_port(2, PORT_IO_CTRL, "both", BACKEND_GPIO, nullptr);
  add_port(3, PORT_IO_CTRL, "locked", BACKEND_GPIO, "readonly");
  add_port(4, PORT_INPUT, "line", BACKEND_IIO, nullptr);
}
