/* Lists the ports of wexd, watches them, pulses an output, and is refused by an input.
 *
 * Usage: ports OUTPUT INPUT    (numbers of ports) */
#include "state-proxy.h"

#include <stdio.h>
#include <stdlib.h>

enum { PULSE_MS = 200 };

static const char* word(gboolean state) {
  return state ? "on" : "off";
}

static void list_ports(IOControlState* state) {
  g_autoptr(GError) error = NULL;
  g_autoptr(GVariant) ports = NULL;
  if (!iocontrol_state_call_get_port_props_sync(state, NULL, &ports, NULL, &error)) {
    fprintf(stderr, "no ports: %s\n", error->message);
    exit(EXIT_FAILURE);
  }
  GVariantIter iter;
  const char* name;
  gint number;
  gboolean active;
  g_variant_iter_init(&iter, ports);
  while (g_variant_iter_next(&iter, "(&sibbbba(sb))", &name, &number, &active, NULL, NULL, NULL,
                             NULL)) {
    printf("%d %s: %s\n", number, name, word(active));
  }
}

static void on_changed(IOControlState* state, gint port, gboolean is_virtual, gboolean hidden,
                       gboolean input, gboolean virtual_trig, gboolean active, gboolean activelow,
                       gpointer user_data) {
  (void)state, (void)is_virtual, (void)hidden, (void)input, (void)virtual_trig, (void)activelow;
  (void)user_data;
  printf("port %d is %s\n", port, word(active));
}

static void on_done(IOControlState* state, gint port, GMainLoop* loop) {
  (void)state, (void)port;
  puts("the pulse is over");
  g_main_loop_quit(loop);
}

/* The steps run in the daemon; the call returns at once. */
static void pulse(IOControlState* state, guint output) {
  g_autoptr(GError) error = NULL;
  GVariant* const steps = g_variant_new_parsed("[(true, %i), (false, 1)]", PULSE_MS);
  if (!iocontrol_state_call_start_action_sequence_sync(state, output, FALSE, steps, NULL, &error)) {
    fprintf(stderr, "no pulse: %s\n", error->message);
    exit(EXIT_FAILURE);
  }
}

static void drive(IOControlState* state, guint port) {
  g_autoptr(GError) error = NULL;
  if (!iocontrol_state_call_set_state_sync(state, port, TRUE, NULL, &error)) {
    g_autofree char* name = g_dbus_error_get_remote_error(error);
    printf("port %u refused: %s\n", port, name);
  }
}

int main(int argc, char* argv[]) {
  if (argc != 3) {
    fprintf(stderr, "Usage: ports OUTPUT INPUT\n");
    return EXIT_FAILURE;
  }
  g_autoptr(GError) error = NULL;
  g_autoptr(IOControlState) state = iocontrol_state_proxy_new_for_bus_sync(
      G_BUS_TYPE_SYSTEM, G_DBUS_PROXY_FLAGS_NONE, "com.norv.IOControl.State",
      "/com/norv/IOControl/State", NULL, &error);
  if (state == NULL) {
    fprintf(stderr, "no wexd: %s\n", error->message);
    return EXIT_FAILURE;
  }
  g_autoptr(GMainLoop) loop = g_main_loop_new(NULL, FALSE);
  g_signal_connect(state, "port-changed", G_CALLBACK(on_changed), NULL);
  g_signal_connect(state, "action-sequence-done", G_CALLBACK(on_done), loop);

  list_ports(state);
  pulse(state, (guint)atoi(argv[1]));
  g_main_loop_run(loop);
  drive(state, (guint)atoi(argv[2]));
  return EXIT_SUCCESS;
}
