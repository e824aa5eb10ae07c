#include "backends/null-backend.h"

#include "port/ioport.h"

namespace {

bool null_port_setup(IoPort* /*port*/, Level /*start*/) {
  return true;
}

Level null_port_get_state(IoPort* /*port*/) {
  return Level::Low;
}

void null_port_set_state(IoPort* /*port*/, Level /*level*/) {}

bool null_port_set_watch(IoPort* /*port*/) {
  return true;
}

void null_port_set_direction(IoPort* /*port*/, Direction /*direction*/) {}

void null_port_parse_data(IoPort* /*port*/, const char* /*element*/, const char* /*key*/,
                          const char* /*value*/) {}

void null_port_free(IoPort* /*port*/) {}

constexpr PortFunctions functions{
    .setup = null_port_setup,
    .get_state = null_port_get_state,
    .set_state = null_port_set_state,
    .set_watch = null_port_set_watch,
    .set_direction = null_port_set_direction,
    .parse_data = null_port_parse_data,
    .free = null_port_free,
};
static_assert(port_functions_valid(functions));

} // namespace

const PortFunctions* null_setup_functions(IoPort* /*port*/) {
  return &functions;
}
