#include "backends/lamp-backend.h"

#include "backends/description-keys.h"
#include "backends/hardware.h"

namespace {

class LampPort {
public:
  [[nodiscard]] bool setup(Level /*start*/) const { return colour_.has_value(); }
  [[nodiscard]] Level get_state() const { return level_; }
  void set_state(Level level) { level_ = level; }
  void parse_data(const char* element, const char* key, const char* value);

private:
  OptionalText colour_;
  Level level_ = Level::Low;
};

void LampPort::parse_data(const char* element, const char* key, const char* value) {
  static constexpr std::array bulb_keys{
      DescriptionKey<LampPort>{"colour", take_text<&LampPort::colour_>},
  };
  static_assert(same_keys(lamp_attributes, bulb_keys));
  if (g_str_equal(element, "bulb")) {
    take_described(bulb_keys, *this, key, value);
  }
}

} // namespace

const PortFunctions* lamp_setup_functions(IoPort* port) {
  return hardware_attach<LampPort>(port);
}
