#include "wexctl/monitor.h"

#include "wexctl/output.h"

#include <fmt/format.h>
#include <glib-unix.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <map>
#include <optional>

namespace wexctl {

namespace {

constexpr const char* state_name = "com.norv.IOControl.State";
constexpr const char* legacy_base_path = "/com/norv/Configuration/Legacy/IOControl/IOPort/";
constexpr const char* legacy_interface_prefix = "com.norv.Configuration.Legacy.IOControl1.";

class Monitor {
public:
  Monitor(const Daemon& daemon, bool json) : daemon_(daemon), json_(json) {}

  void run();

private:
  static void on_port_changed(IOControlState*, gint port, gboolean is_virtual, gboolean hidden,
                              gboolean input, gboolean virtual_trig, gboolean state,
                              gboolean activelow, gpointer self);
  static void on_sequence_done(IOControlState*, gint port, gpointer self);
  static void on_setting(GDBusConnection*, const gchar* sender, const gchar* path,
                         const gchar* interface, const gchar* signal, GVariant* arguments,
                         gpointer self);
  static void on_appeared(GDBusConnection*, const gchar* name, const gchar* owner, gpointer self);
  static void on_vanished(GDBusConnection*, const gchar* name, gpointer self);

  void learn_names();
  std::string name_of(int port);
  void tell(Json event, const std::string& text);
  static gboolean on_reader_left(gint, GIOCondition, gpointer self);
  void end(const CommandError& failure);

  const Daemon& daemon_;
  bool json_;
  /// Whether the daemon was seen before, so that its coming now is a return.
  bool seen_ = false;
  bool present_ = false;
  const std::unique_ptr<GMainLoop, void (*)(GMainLoop*)> loop_{g_main_loop_new(nullptr, FALSE),
                                                               g_main_loop_unref};
  /// Why it ends by itself.
  std::optional<CommandError> failure_;
  std::map<int, std::string> names_;
};

std::string now(const char* format) {
  g_autoptr(GDateTime) time = g_date_time_new_now_local();
  g_autofree gchar* text = g_date_time_format(time, format);
  return fmt::format("{}.{:03}", text, g_date_time_get_microsecond(time) / 1000);
}

std::string bytes_text(GVariant* value) {
  if (g_variant_is_of_type(value, G_VARIANT_TYPE_BYTESTRING)) {
    return g_variant_get_bytestring(value);
  }
  g_autofree gchar* printed = g_variant_print(value, FALSE);
  return printed;
}

// A daemon that is not there has no ports to name; its return will tell them.
void Monitor::learn_names() {
  names_.clear();
  try {
    for (const auto& port : daemon_.ports()) {
      names_[port.number] = port.name;
    }
  } catch (const CommandError&) {
    return;
  }
}

// A port that was out of service when the names were learned is asked for when it is heard of.
std::string Monitor::name_of(int port) {
  if (!names_.contains(port)) {
    learn_names();
  }
  // One that nobody names is not asked for again.
  return names_[port];
}

void Monitor::end(const CommandError& failure) {
  failure_ = failure;
  g_main_loop_quit(loop_.get());
}

// Each line is out before the next change; nothing is thrown through a callback of the loop.
void Monitor::tell(Json event, const std::string& text) {
  if (failure_) {
    return;
  }
  try {
    if (json_) {
      event["time"] = now("%FT%T");
      print("{}\n", json_text(event));
    } else {
      print("{}  {}\n", coloured(Colour::Dim, now("%T")), text);
    }
    flush_output();
  } catch (const CommandError& error) {
    end(error);
  }
}

// Without waiting for a next line: the reader's end is what the signal of a broken pipe tells, and
// it ends the process unless whoever started it has it ignored.
gboolean Monitor::on_reader_left(gint /*output*/, GIOCondition /*condition*/, gpointer self) {
  raise(SIGPIPE);
  static_cast<Monitor*>(self)->end(unwritable(EPIPE));
  return G_SOURCE_REMOVE;
}

void Monitor::on_port_changed(IOControlState* /*proxy*/, gint port, gboolean is_virtual,
                              gboolean hidden, gboolean input, gboolean virtual_trig,
                              gboolean state, gboolean activelow, gpointer self) {
  auto* monitor = static_cast<Monitor*>(self);
  const std::string name = monitor->name_of(port);
  std::string remarks = input ? "input" : "output";
  remarks += virtual_trig ? ", virtual" : "";
  remarks += activelow ? ", active low" : "";
  monitor->tell(
      {{"event", "port-changed"},
       {"port", port},
       {"name", name},
       {"state", state != FALSE},
       {"input", input != FALSE},
       {"virtual", is_virtual != FALSE},
       {"hidden", hidden != FALSE},
       {"virtual_trig", virtual_trig != FALSE},
       {"active_low", activelow != FALSE}},
      fmt::format("port {} {}: {} ({})", port, printable(name),
                  coloured(state ? Colour::Green : Colour::Plain, on_or_off(state != FALSE)),
                  remarks));
}

void Monitor::on_sequence_done(IOControlState* /*proxy*/, gint port, gpointer self) {
  auto* monitor = static_cast<Monitor*>(self);
  const std::string name = monitor->name_of(port);
  monitor->tell({{"event", "sequence-done"}, {"port", port}, {"name", name}},
                fmt::format("port {} {}: sequence done", port, printable(name)));
}

void Monitor::on_setting(GDBusConnection* /*connection*/, const gchar* /*sender*/,
                         const gchar* path, const gchar* /*interface*/, const gchar* /*signal*/,
                         GVariant* arguments, gpointer self) {
  auto* monitor = static_cast<Monitor*>(self);
  if (!g_str_has_prefix(path, legacy_base_path)) {
    return;
  }
  const int port = atoi(path + strlen(legacy_base_path));
  const char* interface = nullptr;
  GVariantIter* changed = nullptr;
  g_variant_get(arguments, "(&sa{sv}as)", &interface, &changed, nullptr);
  const char* property = nullptr;
  GVariant* value = nullptr;
  while (g_variant_iter_next(changed, "{&sv}", &property, &value)) {
    const char* const side = g_str_has_prefix(interface, legacy_interface_prefix)
                                 ? interface + strlen(legacy_interface_prefix)
                                 : interface;
    const std::string text = bytes_text(value);
    g_variant_unref(value);
    monitor->tell({{"event", "setting-changed"},
                   {"port", port},
                   {"name", monitor->name_of(port)},
                   {"interface", side},
                   {"property", property},
                   {"value", text}},
                  fmt::format("port {} {}: {}.{} is now '{}'", port,
                              printable(monitor->name_of(port)), printable(side),
                              printable(property), printable(text)));
  }
  g_variant_iter_free(changed);
}

void Monitor::on_appeared(GDBusConnection* /*connection*/, const gchar* /*name*/,
                          const gchar* /*owner*/, gpointer self) {
  auto* monitor = static_cast<Monitor*>(self);
  monitor->learn_names();
  const char* const what = monitor->seen_ ? "wexd is back" : "watching wexd";
  monitor->tell({{"event", monitor->seen_ ? "daemon-back" : "watching"}},
                coloured(Colour::Bold, what));
  monitor->seen_ = true;
  monitor->present_ = true;
}

void Monitor::on_vanished(GDBusConnection* /*connection*/, const gchar* /*name*/, gpointer self) {
  auto* monitor = static_cast<Monitor*>(self);
  const bool left = monitor->present_;
  monitor->present_ = false;
  monitor->seen_ = true;
  monitor->tell({{"event", left ? "daemon-gone" : "daemon-absent"}},
                coloured(Colour::Yellow, left ? "wexd is gone, waiting for it"
                                              : "wexd is not running, waiting for it"));
}

void Monitor::run() {
  g_signal_connect(daemon_.state(), "port-changed", G_CALLBACK(on_port_changed), this);
  g_signal_connect(daemon_.state(), "action-sequence-done", G_CALLBACK(on_sequence_done), this);
  const guint subscription = g_dbus_connection_signal_subscribe(
      daemon_.connection(), nullptr, "org.freedesktop.DBus.Properties", "PropertiesChanged",
      nullptr, nullptr, G_DBUS_SIGNAL_FLAGS_NONE, on_setting, this, nullptr);
  const guint watch = g_bus_watch_name_on_connection(daemon_.connection(), state_name,
                                                     G_BUS_NAME_WATCHER_FLAGS_NONE, on_appeared,
                                                     on_vanished, this, nullptr);
  const auto quit = [](gpointer data) -> gboolean {
    g_main_loop_quit(static_cast<GMainLoop*>(data));
    return G_SOURCE_CONTINUE;
  };
  const guint interrupted = g_unix_signal_add(SIGINT, quit, loop_.get());
  const guint terminated = g_unix_signal_add(SIGTERM, quit, loop_.get());
  // No condition is asked for, so that only an error is told.
  g_unix_fd_add(STDOUT_FILENO, G_IO_ERR, on_reader_left, this);
  g_main_loop_run(loop_.get());
  g_source_remove(interrupted);
  g_source_remove(terminated);
  g_bus_unwatch_name(watch);
  g_dbus_connection_signal_unsubscribe(daemon_.connection(), subscription);
  if (failure_) {
    throw CommandError(*failure_);
  }
}

} // namespace

void monitor(const Daemon& daemon, bool json) {
  Monitor(daemon, json).run();
}

} // namespace wexctl
