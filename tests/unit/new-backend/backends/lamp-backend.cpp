#include "backends/lamp-backend.h"

#include "backends/description-keys.h"
#include "backends/hardware.h"
#include "platform/words.h"

namespace {

enum class Colour { Red, Green };
constexpr std::array colour_words{Word{"red", Colour::Red}, Word{"green", Colour::Green}};
static_assert(same_words(colour_words, lamp_colours));

class LampPort {
public:
  [[nodiscard]] bool setup(Level /*start*/) const { return colour_.has_value(); }
  [[nodiscard]] Level get_state() const { return level_; }
  void set_state(Level level) { level_ = level; }
  void parse_data(const char* element, const char* key, const char* value);

private:
  static void take_colour(LampPort& lamp, const char* value);

  std::optional<Colour> colour_;
  Level level_ = Level::Low;
};

// Another text changes nothing.
void LampPort::take_colour(LampPort& lamp, const char* value) {
  if (const auto colour = find_word(colour_words, value)) {
    lamp.colour_ = colour;
  }
}

void LampPort::parse_data(const char* element, const char* key, const char* value) {
  static constexpr std::array bulb_keys{
      DescriptionKey<LampPort>{"colour", take_colour},
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
