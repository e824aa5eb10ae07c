// A trivial service with two of the daemon's interfaces, generated from the same XML, built with
// the same flags on the same bus library: states in an array, constants for the rest. What it takes
// is the floor of what the daemon can take.
#include "bench-ports.h"
#include "dbus/iocontrol-state-gen.h"
#include "floor-legacy-gen.h"

#include <gio/gio.h>
#include <glib-unix.h>

#include <array>
#include <cstdlib>

namespace {

constexpr const char* name = "bench.Floor";

std::array<bool, bench_ports> states;

gboolean get_state(IOControlState* state, GDBusMethodInvocation* call, guint port) {
  iocontrol_state_complete_get_state(state, call, states[port % bench_ports]);
  return TRUE;
}

gboolean set_state(IOControlState* state, GDBusMethodInvocation* call, guint port,
                   gboolean active) {
  const bool wanted = active != FALSE;
  if (states[port % bench_ports] != wanted) {
    states[port % bench_ports] = wanted;
    iocontrol_state_emit_port_changed(state, static_cast<gint>(port), FALSE, FALSE, FALSE, FALSE,
                                      active, FALSE);
  }
  iocontrol_state_complete_set_state(state, call);
  return TRUE;
}

gboolean get_port_props(IOControlState* state, GDBusMethodInvocation* call) {
  GVariantBuilder ports;
  g_variant_builder_init(&ports, G_VARIANT_TYPE("a(sibbbba(sb))"));
  for (int i = 0; i < bench_ports; i++) {
    g_variant_builder_open(&ports, G_VARIANT_TYPE("(sibbbba(sb))"));
    g_variant_builder_add(&ports, "s", "port");
    g_variant_builder_add(&ports, "i", i);
    for (const bool told : {bool{states[static_cast<std::size_t>(i)]}, false, false, false}) {
      g_variant_builder_add(&ports, "b", told);
    }
    g_variant_builder_open(&ports, G_VARIANT_TYPE("a(sb)"));
    for (const char* property : bench_properties) {
      g_variant_builder_add(&ports, "(sb)", property, TRUE);
    }
    g_variant_builder_close(&ports);
    g_variant_builder_close(&ports);
  }
  iocontrol_state_complete_get_port_props(state, call, bench_ports, g_variant_builder_end(&ports));
  return TRUE;
}

bool serve(GDBusConnection* bus, gpointer skeleton, const char* path) {
  g_autoptr(GError) error = nullptr;
  if (g_dbus_interface_skeleton_export(G_DBUS_INTERFACE_SKELETON(skeleton), bus, path, &error)
      != FALSE) {
    return true;
  }
  g_printerr("%s\n", error->message);
  return false;
}

gboolean ended(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop*>(loop));
  return G_SOURCE_CONTINUE;
}

} // namespace

int main() {
  g_autoptr(GError) error = nullptr;
  g_autoptr(GDBusConnection) bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
  if (bus == nullptr) {
    g_printerr("%s\n", error->message);
    return EXIT_FAILURE;
  }
  g_autoptr(IOControlState) state = iocontrol_state_skeleton_new();
  g_signal_connect(state, "handle-get-state", G_CALLBACK(get_state), nullptr);
  g_signal_connect(state, "handle-set-state", G_CALLBACK(set_state), nullptr);
  g_signal_connect(state, "handle-get-port-props", G_CALLBACK(get_port_props), nullptr);
  g_autoptr(ConfigurationLegacyIOControl1IOPort) legacy =
      configuration_legacy_iocontrol1_ioport_skeleton_new();
  configuration_legacy_iocontrol1_ioport_set_direction(legacy, "output");
  configuration_legacy_iocontrol1_ioport_set_usage(legacy, "");
  if (!serve(bus, state, state_path) || !serve(bus, legacy, legacy_path)) {
    return EXIT_FAILURE;
  }
  // Whoever sees the name may end the service at once.
  g_autoptr(GMainLoop) loop = g_main_loop_new(nullptr, FALSE);
  g_unix_signal_add(SIGTERM, ended, loop);
  const guint owned = g_bus_own_name_on_connection(bus, name, G_BUS_NAME_OWNER_FLAGS_NONE, nullptr,
                                                   nullptr, nullptr, nullptr);
  g_main_loop_run(loop);
  g_bus_unown_name(owned);
  return EXIT_SUCCESS;
}
