#include "backends/lamp-backend.h"

#include "backends/backend-data.h"
#include "backends/description-keys.h"
#include "port/ioport.h"

namespace {

struct LampPortData {
  OptionalText colour;
  Level level = Level::Low;
};

constexpr std::array bulb_keys{
    DescriptionKey<LampPortData>{"colour", take_text<&LampPortData::colour>},
};
static_assert(same_keys(lamp_attributes, bulb_keys));

void lamp_parse_data(IoPort* port, const char* element, const char* key, const char* value) {
  if (g_str_equal(element, "bulb")) {
    take_described(bulb_keys, *backend_data_ensure<LampPortData>(port), key, value);
  }
}

constexpr PortFunctions functions = backend_table<LampPortData>({
    .setup =
        [](IoPort* port, Level /*start*/) {
          return backend_data_ensure<LampPortData>(port)->colour.has_value();
        },
    .get_state = [](IoPort* port) { return backend_data_ensure<LampPortData>(port)->level; },
    .set_state = [](IoPort* port,
                    Level level) { backend_data_ensure<LampPortData>(port)->level = level; },
    .set_watch = [](IoPort*) { return true; },
    .set_direction = [](IoPort*, Direction) {},
    .parse_data = lamp_parse_data,
});
static_assert(port_functions_valid(functions));

} // namespace

const PortFunctions* lamp_setup_functions(IoPort* port) {
  return backend_attach<LampPortData>(port, functions);
}
