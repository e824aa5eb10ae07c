#include "port/supervised-utils.h"

#include "port/ioport.h"

#include <algorithm>
#include <array>
#include <utility>

namespace {

constexpr std::array<const char*, SUPERVISED_UNDEFINED + 1> state_names{"open", "closed", "short",
                                                                        "cut", "undefined"};

// By a signed 32-bit difference: the order that stored lists have always had.
bool stands_before(const SupervisedRange& one, const SupervisedRange& other) {
  return static_cast<gint>(one.lower - other.lower) <= 0;
}

} // namespace

GQuark io_supervised_error_quark() {
  return g_quark_from_static_string("io-supervised-error-quark");
}

SupervisedState supervised_range_string2state(const char* name) {
  for (const auto state : {SUPERVISED_OPEN, SUPERVISED_CLOSED, SUPERVISED_CUT, SUPERVISED_SHORT}) {
    if (g_strcmp0(name, state_names[state]) == 0) {
      return state;
    }
  }
  return SUPERVISED_UNDEFINED;
}

const char* supervised_range_state2string(SupervisedState state) {
  if (state >= state_names.size()) {
    g_assert_not_reached();
  }
  return state_names[state];
}

GVariant* supervised_ranges2gvariant(std::span<const SupervisedRange> ranges) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("a(suu)"));
  for (const auto& range : ranges) {
    g_variant_builder_add(&builder, "(suu)", supervised_range_state2string(range.state),
                          range.lower, range.upper);
  }
  return g_variant_builder_end(&builder);
}

SupervisedRanges supervised_gvariant2ranges(GVariant* value) {
  SupervisedRanges ranges;
  GVariantIter iter;
  g_variant_iter_init(&iter, value);
  const char* name = nullptr;
  guint32 lower = 0;
  guint32 upper = 0;
  while (g_variant_iter_next(&iter, "(&suu)", &name, &lower, &upper)) {
    const SupervisedRange range{
        .state = supervised_range_string2state(name), .upper = upper, .lower = lower};
    ranges.insert(std::ranges::find_if(
                      ranges, [&](const auto& other) { return stands_before(range, other); }),
                  range);
  }
  return ranges;
}

gint range_equal(const SupervisedRange* a, const SupervisedRange* b) {
  return static_cast<gint>(a->state) - static_cast<gint>(b->state);
}

const SupervisedRange* supervised_range_of(std::span<const SupervisedRange> ranges, guint32 level) {
  const SupervisedRange* found = nullptr;
  for (const auto& range : ranges) {
    if (range.lower <= level && level <= range.upper) {
      found = &range;
    }
  }
  return found;
}

const SupervisedRanges& supervised_get_supervised_ranges(IoPort* port) {
  return port->ranges;
}

bool supervised_set_supervised_ranges(IoPort* port, SupervisedRanges ranges, GError** error) {
  if (ranges.empty()) {
    g_set_error_literal(error, io_supervised_error_quark(),
                        IO_SUPERVISED_ERROR_BAD_SUPERVISED_RANGE, "Ranges is null.");
    return false;
  }
  port->ranges = std::move(ranges);
  return true;
}

bool supervised_is_supervisable(IoPort* port) {
  return io_port_has_input_side(port);
}

std::optional<SupervisedState> supervised_lookup_state(IoPort* port, guint32 level,
                                                       GError** error) {
  const SupervisedRanges* const ranges = io_port_get_supervised_ranges(port);
  if (ranges == nullptr) {
    g_set_error(error, io_supervised_error_quark(), IO_SUPERVISED_ERROR_NOT_SUPERVISED,
                "Failed to get ranges from port %s", c_str_or_null(port->name));
    return std::nullopt;
  }
  const SupervisedRange* const range = supervised_range_of(*ranges, level);
  return range != nullptr ? range->state : SUPERVISED_UNDEFINED;
}

std::optional<SupervisedReadout> supervised_readout_of(IoPort* port, guint32 level,
                                                       GError** error) {
  const auto state = supervised_lookup_state(port, level, error);
  return state ? std::optional(SupervisedReadout{.state = *state, .level = level}) : std::nullopt;
}
