// The daemon's life: what is started in which order, and what is stopped in which.
#include "backends/bus-port.h"
#include "core/conf-reader.h"
#include "core/privileges.h"
#include "core/single-instance.h"
#include "dbus/iocontrol-conf-legacy-dbus.h"
#include "dbus/iocontrol.h"
#include "dbus/iosupervised.h"
#include "dbus/service-registry.h"
#include "param/param.h"
#include "param/sedrin-import.h"
#include "peers/action-engine.h"
#include "peers/virtual-input.h"
#include "platform/bus-connection.h"
#include "platform/file-sync.h"
#include "platform/handles.h"
#include "platform/log.h"
#include "platform/memory.h"
#include "port/ioport-list.h"

#include <glib-unix.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <tuple>

namespace {

constexpr const char* hardware_description = "/usr/share/wexd/conf.xml";
constexpr const char* drop_directory = "/etc/wexd.d/";
constexpr const char* old_param_file = "/etc/dynamic/wexd/params.conf";
constexpr const char* import_file = "/tmp/wexd_ioport.conf";

struct MainLoopUnref {
  void operator()(GMainLoop* loop) const { g_main_loop_unref(loop); }
};

std::unique_ptr<GMainLoop, MainLoopUnref> main_loop;
guint term_source = 0;
guint hup_source = 0;
/// Cleared when SIGTERM arrives. Main thread only.
guint running = 1;
int exit_status = EXIT_SUCCESS;

gboolean handle_signal(gpointer user_data) {
  switch (GPOINTER_TO_INT(user_data)) {
  case SIGHUP:
    g_info("%sGot SIGHUP", log_prefix);
    break;
  case SIGTERM:
    g_info("%sGot SIGTERM", log_prefix);
    g_main_loop_quit(main_loop.get());
    running = 0;
    break;
  default:
    break;
  }
  return G_SOURCE_CONTINUE;
}

// A daemon that nobody can reach is of no use; its starter shall try another. One that was told to
// end has nothing to lose any more.
void on_bus_lost() {
  if (running != 0) {
    exit_status = EXIT_FAILURE;
  }
  g_main_loop_quit(main_loop.get());
}

void install_signal_sources() {
  term_source = g_unix_signal_add(SIGTERM, handle_signal, GINT_TO_POINTER(SIGTERM));
  hup_source = g_unix_signal_add(SIGHUP, handle_signal, GINT_TO_POINTER(SIGHUP));
}

void remove_signal_sources() {
  for (guint* source : {&term_source, &hup_source}) {
    if (*source != 0) {
      g_source_remove(std::exchange(*source, 0));
    }
  }
}

void read_hardware_description() {
  // What could not be read has been logged, and the ports that were read are better than none.
  std::ignore = conf_read_configuration(hardware_description);
  std::ignore = conf_read_drop_dir(drop_directory);
  conf_finish_reading();
}

// What was taken over is removed, or it would be taken again at the next start.
void remove_taken_file(const char* path) {
  errno = 0;
  if (remove(path) != 0) {
    g_warning("%sCould not remove %s: %s", log_prefix, path, strerror(errno));
  }
}

bool is_present_file(const char* path) {
  return g_file_test(path, G_FILE_TEST_EXISTS) && g_file_test(path, G_FILE_TEST_IS_REGULAR);
}

void apply_loaded_params() {
  io_port_list_read_params(param_get_conf_vals);
  param_close_file();
}

// Devices that were updated still have the settings where an older layout kept them.
void migrate_old_params() {
  if (!is_present_file(old_param_file) || !param_read_configuration(old_param_file)) {
    return;
  }
  apply_loaded_params();
  remove_taken_file(old_param_file);
}

bool read_user_params() {
  if (!param_read_configuration(param_file)) {
    g_warning("%sCould not read configuration file\n", log_prefix);
    return false;
  }
  apply_loaded_params();
  if (access(param_file, F_OK) == 0) {
    param_set_owner_group(param_file);
  }
  return true;
}

// What the older parameter service left is taken once: it goes when the settings are safe. Without
// ports, because their description is missing, it has not been taken by any.
void import_and_save_params() {
  const bool taken = sedrin_take_file(import_file) && io_port_list_length() > 0;
  io_port_list_update_names();
  const bool saved = param_save_all(param_file);
  if (taken && saved) {
    remove_taken_file(import_file);
  }
}

void start_services() {
  actionengine_dbus_init();
  iocontrol_init_dbus();
  iosupervised_init_dbus();
  if (use_legacy_interface()) {
    iocontrol_conf_legacy_dbus_create();
  }
}

void stop_services() {
  if (use_legacy_interface()) {
    iocontrol_conf_legacy_dbus_destroy();
  }
  iosupervised_unreg_dbus();
  iocontrol_unreg_dbus();
  actionengine_dbus_finalize();
}

// Ports whose services were lost with the bus of the start would stay away as long as the daemon
// runs, so it serves nobody then.
void serve() {
  if (!bus_connection_share(on_bus_lost)) {
    return;
  }
  bus_ports_change_connection();
  start_services();
  io_port_list_set_watch();
  io_port_list_declare_events();
  virtual_input_init();

  g_main_loop_run(main_loop.get());

  stop_services();
  virtual_input_finalize();
}

} // namespace

int main(int argc, char* argv[]) {
  memory_share_one_arena();
  set_use_legacy_interface(g_strcmp0(argc > 1 ? argv[1] : nullptr, "--disable_legacy_interface")
                           != 0);
  nv_log_stdout();
  drop_inheritable_capabilities();
  if (!claim_settings_folder(param_folder)) {
    return EXIT_FAILURE;
  }
  main_loop.reset(g_main_loop_new(nullptr, FALSE));
  install_signal_sources();

  file_remove_leftovers(param_file);
  file_remove_leftovers(legacy_temporary_file);
  read_hardware_description();
  migrate_old_params();
  if (!read_user_params()) {
    return EXIT_FAILURE;
  }
  import_and_save_params();
  io_port_list_setup();
  if (use_legacy_interface()) {
    generate_service_registry();
  }
  // Backends have opened their devices by now; everything later is done as an ordinary user.
  drop_privileges();
  serve();
  remove_signal_sources();
  param_save_unsaved(param_file);
  io_port_list_free();
  return exit_status;
}
