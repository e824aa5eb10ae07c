#include "wexctl/duration.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <string_view>

namespace wexctl {

namespace {

struct Unit {
  std::string_view name;
  double ms;
};

constexpr std::array units{Unit{"ms", 1}, Unit{"", 1}, Unit{"s", 1000}, Unit{"m", 60 * 1000},
                           Unit{"h", 60 * 60 * 1000}};

bool is_digit(char c) {
  return g_ascii_isdigit(c) != FALSE;
}

} // namespace

// Digits, with a point between them or not, and a unit: none of the signs, exponents and words that
// the library would take for a number as well.
std::optional<guint> parse_duration(const std::string& text) {
  const auto digits = std::ranges::find_if_not(text, is_digit);
  auto end = digits;
  if (end != text.end() && *end == '.') {
    end = std::find_if_not(end + 1, text.end(), is_digit);
  }
  const std::string_view unit_name(end, text.end());
  const auto* const unit = std::ranges::find(units, unit_name, &Unit::name);
  if (digits == text.begin() || *(end - 1) == '.' || unit == units.end()) {
    return std::nullopt;
  }
  const double ms = std::round(g_ascii_strtod(text.c_str(), nullptr) * unit->ms);
  return ms <= longest_duration_ms ? std::optional(static_cast<guint>(ms)) : std::nullopt;
}

} // namespace wexctl
