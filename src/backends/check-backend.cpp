#include "backends/check-backend.h"

#include "backends/backend-data.h"

#include <algorithm>

namespace {

struct CheckPortData {
  // Set by action-sequence threads, read by the main thread.
  std::atomic<Level> level{Level::Low};
  bool setup_result = false;
  bool watching = false;
  Direction direction = Direction::Output;
  /// Latest first.
  std::list<IoPort::BackendAttribute> attributes;
};

bool asks_for_failure(const IoPort::BackendAttribute& attribute) {
  return attribute.key == "setup" && attribute.value == "fail";
}

bool check_setup(IoPort* port, Level /*start*/) {
  auto* data = backend_data_ensure<CheckPortData>(port);
  data->setup_result = std::ranges::none_of(data->attributes, asks_for_failure);
  return data->setup_result;
}

Level check_get_state(IoPort* port) {
  const auto* data = backend_data<CheckPortData>(port);
  return data != nullptr ? data->level.load() : Level::Low;
}

void check_set_state(IoPort* port, Level level) {
  backend_data_ensure<CheckPortData>(port)->level = level;
}

bool check_set_watch(IoPort* port) {
  backend_data_ensure<CheckPortData>(port)->watching = true;
  return true;
}

void check_set_direction(IoPort* port, Direction direction) {
  backend_data_ensure<CheckPortData>(port)->direction = direction;
}

void check_parse_data(IoPort* port, const char* element, const char* key, const char* value) {
  backend_data_ensure<CheckPortData>(port)->attributes.push_front(
      {.element = element, .key = key, .value = value});
}

constexpr PortFunctions functions = backend_table<CheckPortData>({
    .setup = check_setup,
    .get_state = check_get_state,
    .set_state = check_set_state,
    .set_watch = check_set_watch,
    .set_direction = check_set_direction,
    .parse_data = check_parse_data,
});
static_assert(port_functions_valid(functions));

} // namespace

const PortFunctions* check_setup_functions(IoPort* port) {
  return backend_attach<CheckPortData>(port, functions);
}
