// Supervised ranges as a client sends them, and levels looked up in them.
#include "fuzz-ports.h"

#include "port/supervised-utils.h"

extern "C" int LLVMFuzzerTestOneInput(const guint8* data, size_t size) {
  FuzzInput input(data, size);
  const auto level = fuzz_take<guint32>(input);
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("a(suu)"));
  while (!input.empty()) {
    static constexpr std::array names{"open", "closed", "short", "cut", "", "undefined", "OPEN"};
    const char* const name = names.at(fuzz_take<guint8>(input) % names.size());
    const auto lower = fuzz_take<guint32>(input);
    const auto upper = fuzz_take<guint32>(input);
    g_variant_builder_add(&builder, "(suu)", name, lower, upper);
  }
  g_autoptr(GVariant) sent = g_variant_ref_sink(g_variant_builder_end(&builder));

  fuzz_add_ports();
  IoPortRef port = io_port_list_get_port(4);
  const auto ranges = supervised_gvariant2ranges(sent);
  const gsize count = ranges.size();
  fuzz_require(count == g_variant_n_children(sent));
  g_autoptr(GError) error = nullptr;
  if (supervised_set_supervised_ranges(port.get(), ranges, &error)) {
    const auto state = supervised_lookup_state(port.get(), level, nullptr);
    fuzz_require(state && *state <= SUPERVISED_UNDEFINED);
    g_autoptr(GVariant) told = g_variant_ref_sink(supervised_ranges2gvariant(port->ranges));
    fuzz_require(g_variant_n_children(told) == count);
  } else {
    fuzz_require(count == 0 && error != nullptr);
  }
  port.reset();
  io_port_list_free();
  return 0;
}
