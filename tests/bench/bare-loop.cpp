// The least that a service on the system bus can be: a connection and a main loop. What it takes is
// GLib's own, and the floor of what the daemon can take.
#include <gio/gio.h>

int main() {
  g_autoptr(GError) error = nullptr;
  g_autoptr(GDBusConnection) bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
  if (bus == nullptr) {
    g_printerr("%s\n", error->message);
    return 1;
  }
  g_autoptr(GMainLoop) loop = g_main_loop_new(nullptr, FALSE);
  g_print("ready\n");
  g_main_loop_run(loop);
}
