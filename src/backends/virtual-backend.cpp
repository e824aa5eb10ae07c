#include "backends/virtual-backend.h"

#include "backends/backend-data.h"
#include "backends/empty-slots.h"

namespace {

struct VirtualPortData {
  // Set by action-sequence threads, read by the main thread.
  std::atomic<Level> level{Level::Low};
};

bool virtual_setup(IoPort* /*port*/, Level /*start*/) {
  return true;
}

Level virtual_get_state(IoPort* port) {
  const auto* data = backend_data<VirtualPortData>(port);
  return data != nullptr ? data->level.load() : Level::Low;
}

void virtual_set_state(IoPort* port, Level level) {
  backend_data_ensure<VirtualPortData>(port)->level = level;
}

constexpr PortFunctions functions = backend_table<VirtualPortData>({
    .setup = virtual_setup,
    .get_state = virtual_get_state,
    .set_state = virtual_set_state,
    .set_watch = ignore_watch,
    .set_direction = ignore_direction,
    .parse_data = ignore_description,
});
static_assert(port_functions_valid(functions));

} // namespace

const PortFunctions* virtual_setup_functions(IoPort* port) {
  return backend_attach<VirtualPortData>(port, functions);
}
