#include "backends/virtual-backend.h"

#include "backends/backend-data.h"

namespace {

struct VirtualPortData {
  // Set by action-sequence threads, read by the main thread.
  std::atomic<gint> state{0};
};

gboolean virtual_setup(IoPort* /*port*/, gboolean /*activelow_output*/) {
  return TRUE;
}

guint virtual_get_state(IoPort* port) {
  const auto* data = backend_data<VirtualPortData>(port);
  return data != nullptr && data->state > 0 ? 1 : 0;
}

void virtual_set_state(IoPort* port, gint state) {
  backend_data_ensure<VirtualPortData>(port)->state = state;
}

gboolean virtual_set_watch(IoPort* /*port*/) {
  return TRUE;
}

void virtual_set_direction(IoPort* /*port*/, gboolean /*input*/) {}

void virtual_parse_data(IoPort* /*port*/, const char* /*element*/, const char* /*key*/,
                        const char* /*value*/) {}

void virtual_free(IoPort* port) {
  backend_data_free<VirtualPortData>(port);
}

constexpr PortFunctions functions{
    .setup = virtual_setup,
    .get_state = virtual_get_state,
    .set_state = virtual_set_state,
    .set_watch = virtual_set_watch,
    .set_direction = virtual_set_direction,
    .parse_data = virtual_parse_data,
    .free = virtual_free,
};
static_assert(port_functions_valid(functions));

} // namespace

const PortFunctions* virtual_setup_functions(IoPort* port) {
  backend_data_ensure<VirtualPortData>(port);
  return &functions;
}
