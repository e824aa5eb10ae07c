#include "backends/lamp-backend.h"

#include "backends/backend-data.h"
#include "backends/description-keys.h"
#include "port/ioport.h"

namespace {

struct LampPortData {
  OptionalText colour;
  guint state = 0;
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
    .setup = [](IoPort* port, gboolean /*state*/) -> gboolean {
      return backend_data_ensure<LampPortData>(port)->colour.has_value();
    },
    .get_state = [](IoPort* port) { return backend_data_ensure<LampPortData>(port)->state; },
    .set_state =
        [](IoPort* port, gint state) {
          backend_data_ensure<LampPortData>(port)->state = state != 0 ? 1 : 0;
        },
    .set_watch = [](IoPort*) -> gboolean { return TRUE; },
    .set_direction = [](IoPort*, gboolean) {},
    .parse_data = lamp_parse_data,
});
static_assert(port_functions_valid(functions));

} // namespace

const PortFunctions* lamp_setup_functions(IoPort* port) {
  return backend_attach<LampPortData>(port, functions);
}
