#include "port/supervised-utils.h"

#include "port/ioport.h"

#include <array>

namespace {

constexpr std::array<const char*, SUPERVISED_UNDEFINED + 1> state_names{"open", "closed", "short",
                                                                        "cut", "undefined"};

gint compare_lower(gconstpointer a, gconstpointer b) {
  const auto lower_a = static_cast<const SupervisedRange*>(a)->lower;
  const auto lower_b = static_cast<const SupervisedRange*>(b)->lower;
  // A signed 32-bit difference: the order that stored lists have always had.
  return static_cast<gint>(lower_a - lower_b);
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

GVariant* supervised_ranges2gvariant(GList* ranges) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("a(suu)"));
  for (const GList* item = ranges; item != nullptr; item = item->next) {
    const auto* range = static_cast<const SupervisedRange*>(item->data);
    g_variant_builder_add(&builder, "(suu)", supervised_range_state2string(range->state),
                          range->lower, range->upper);
  }
  return g_variant_builder_end(&builder);
}

GList* supervised_gvariant2ranges(GVariant* value) {
  GList* ranges = nullptr;
  GVariantIter iter;
  g_variant_iter_init(&iter, value);
  const char* name = nullptr;
  guint32 lower = 0;
  guint32 upper = 0;
  while (g_variant_iter_next(&iter, "(&suu)", &name, &lower, &upper)) {
    auto* range = g_new0(SupervisedRange, 1);
    range->state = supervised_range_string2state(name);
    range->lower = lower;
    range->upper = upper;
    ranges = g_list_insert_sorted(ranges, range, compare_lower);
  }
  return ranges;
}

gint range_equal(const SupervisedRange* a, const SupervisedRange* b) {
  return static_cast<gint>(a->state) - static_cast<gint>(b->state);
}

void supervised_ranges_free(GList* ranges) {
  g_list_free_full(ranges, g_free);
}

GList* supervised_get_supervised_ranges(IoPort* port) {
  return port->ranges;
}

gboolean supervised_set_supervised_ranges(IoPort* port, GList* ranges, GError** error) {
  if (ranges == nullptr) {
    g_set_error_literal(error, io_supervised_error_quark(),
                        IO_SUPERVISED_ERROR_BAD_SUPERVISED_RANGE, "Ranges is null.");
    return FALSE;
  }
  io_port_replace_ranges(port, ranges);
  return TRUE;
}

gboolean supervised_is_supervisable(IoPort* port) {
  return io_port_has_input_side(port);
}

gboolean supervised_lookup_state(IoPort* port, guint32 level, guint* state, GError** error) {
  *state = SUPERVISED_UNDEFINED;

  GList* ranges = nullptr;
  if (!io_port_get_supervised_ranges(port, &ranges)) {
    g_set_error(error, io_supervised_error_quark(), IO_SUPERVISED_ERROR_NOT_SUPERVISED,
                "Failed to get ranges from port %s", c_str_or_null(port->name));
    return FALSE;
  }

  for (const GList* item = ranges; item != nullptr; item = item->next) {
    const auto* range = static_cast<const SupervisedRange*>(item->data);
    if (range->lower <= level && level <= range->upper) {
      *state = range->state;
    }
  }
  return TRUE;
}
