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
#include "platform/callbacks.h"
#include "platform/file-sync.h"
#include "platform/handles.h"
#include "platform/log.h"
#include "platform/memory.h"
#include "port/ioport-list.h"
#include "port/port-observer.h"

#include <glib-unix.h>
#include <sys/prctl.h>
#include <unistd.h>

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

// The main loop, and what ends it. One that was told to end has nothing to lose any more; without
// the bus nobody can reach the daemon, and its starter shall try another.
class MainLoop {
public:
  void run() const { g_main_loop_run(loop_.get()); }

  void bus_lost() {
    if (!told_to_end_) {
      exit_status_ = EXIT_FAILURE;
    }
    g_main_loop_quit(loop_.get());
  }

  /// From here on a signal does what it does by default.
  void leave_signals() {
    term_.reset();
    hup_.reset();
  }

  [[nodiscard]] int exit_status() const { return exit_status_; }

private:
  static gboolean got_sigterm(MainLoop* main_loop) {
    g_info("%sGot SIGTERM", log_prefix);
    g_main_loop_quit(main_loop->loop_.get());
    main_loop->told_to_end_ = true;
    return G_SOURCE_CONTINUE;
  }

  static gboolean got_sighup(MainLoop* /*main_loop*/) {
    g_info("%sGot SIGHUP", log_prefix);
    return G_SOURCE_CONTINUE;
  }

  std::unique_ptr<GMainLoop, FreeWith<g_main_loop_unref>> loop_{g_main_loop_new(nullptr, FALSE)};
  bool told_to_end_ = false;
  int exit_status_ = EXIT_SUCCESS;
  SourceId term_{g_unix_signal_add(SIGTERM, callback<got_sigterm>, this)};
  SourceId hup_{g_unix_signal_add(SIGHUP, callback<got_sighup>, this)};
};

// Edges settle for half a millisecond, and steps of sequences count in milliseconds. Unasked, the
// kernel adds up to 50 us to every wait, to wake the processor less often.
void wait_exactly() {
  constexpr unsigned long slack_ns = 1000;
  std::ignore = prctl(PR_SET_TIMERSLACK, slack_ns);
}

void read_hardware_description() {
  ConfReader reader;
  // What could not be read has been logged, and the ports that were read are better than none.
  std::ignore = conf_read_configuration(reader, hardware_description);
  std::ignore = conf_read_drop_dir(reader, drop_directory);
  conf_finish_reading();
}

// What was taken over is removed, or it would be taken again at the next start.
void remove_taken_file(const char* path) {
  errno = 0;
  if (remove(path) != 0) {
    g_warning("%sCould not remove %s: %s", log_prefix, path, strerror(errno));
  }
}

void apply_loaded_params() {
  io_port_list_read_params(param_get_conf_vals);
  param_close_file();
}

// Devices that were updated still have the settings where an older layout kept them.
void migrate_old_params() {
  if (!g_file_test(old_param_file, G_FILE_TEST_IS_REGULAR)
      || !param_read_configuration(old_param_file)) {
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

// What is served on the bus, in the order in which it starts. It ends in reverse.
class Services {
public:
  explicit Services(LegacyInterface legacy)
      : iocontrol_(iocontrol_init_dbus(legacy)), supervised_(iosupervised_init_dbus()) {
    if (legacy == LegacyInterface::Served) {
      legacy_ = iocontrol_conf_legacy_dbus_create();
      port_observer.port_set_changed = [this] { publish_legacy_anew(); };
    }
  }
  ~Services() { port_observer.port_set_changed = nullptr; }
  Services(const Services&) = delete;
  Services& operator=(const Services&) = delete;

private:
  // It shows the ports that there were when it was published.
  void publish_legacy_anew() {
    legacy_.reset();
    generate_service_registry();
    legacy_ = iocontrol_conf_legacy_dbus_create();
  }

  ActionengineDbus action_engine_;
  IoControlOwner iocontrol_;
  IoSupervisedOwner supervised_;
  LegacyCtrlOwner legacy_;
};

// Ports whose services were lost with the bus of the start would stay away as long as the daemon
// runs, so it serves nobody then.
void serve(MainLoop& main_loop, LegacyInterface legacy) {
  if (!bus_connection_share([&main_loop] { main_loop.bus_lost(); })) {
    return;
  }
  bus_ports_change_connection();
  // Started last, and yet the last to end: its ports are announced no more.
  VirtualInput virtual_input;
  const Services services(legacy);
  io_port_list_set_watch();
  io_port_list_declare_events();
  virtual_input.init();
  main_loop.run();
}

LegacyInterface legacy_interface_of(int argc, char* argv[]) {
  return g_strcmp0(argc > 1 ? argv[1] : nullptr, "--disable_legacy_interface") == 0
             ? LegacyInterface::Absent
             : LegacyInterface::Served;
}

} // namespace

int main(int argc, char* argv[]) {
  // A file that must not grow any more is a write that failed.
  std::ignore = signal(SIGXFSZ, SIG_IGN);
  memory_share_one_arena();
  wait_exactly();
  const LegacyInterface legacy = legacy_interface_of(argc, argv);
  nv_log_stdout();
  drop_inheritable_capabilities();
  const auto claim = claim_settings_folder(param_folder);
  if (!claim) {
    return EXIT_FAILURE;
  }
  MainLoop main_loop;

  file_remove_leftovers(param_file);
  file_remove_leftovers(legacy_temporary_file);
  read_hardware_description();
  migrate_old_params();
  if (!read_user_params()) {
    return EXIT_FAILURE;
  }
  import_and_save_params();
  io_port_list_setup();
  if (legacy == LegacyInterface::Served) {
    generate_service_registry();
  }
  // Backends have opened their devices by now; everything later is done as an ordinary user.
  drop_privileges();
  serve(main_loop, legacy);
  main_loop.leave_signals();
  param_save_unsaved(param_file);
  io_port_list_free();
  return main_loop.exit_status();
}
