#include "wexctl/monitor.h"

#include "wexctl/output.h"
#include "wexctl/supervised.h"
#include "wexctl/vigil.h"

#include <fmt/format.h>
#include <glib-unix.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <map>
#include <optional>
#include <set>

namespace wexctl {

namespace {

constexpr const char* state_name = "com.norv.IOControl.State";
constexpr const char* legacy_base_path = "/com/norv/Configuration/Legacy/IOControl/IOPort/";
constexpr const char* legacy_interface_prefix = "com.norv.Configuration.Legacy.IOControl1.";

/// A port's state as it was told or found.
struct SeenState {
  int port;
  bool state;
  bool input;
  bool activelow;
  /// Announced by a client; the line may be at anything.
  bool announced = false;
};

class Monitor {
public:
  Monitor(const Daemon& daemon, const MonitorOptions& options)
      : daemon_(daemon), options_(options) {}

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
  static void on_supervision_served(GObject* proxy, GParamSpec* property, gpointer self);
  static void on_vanished(GDBusConnection*, const gchar* name, gpointer self);
  static void on_bus_closed(GDBusConnection*, gboolean, GError*, gpointer self);
  static gboolean on_reader_left(gint, GIOCondition, gpointer self);
  static gboolean on_idle_timeout(gpointer self);
  static gboolean on_timeout(gpointer self);
  static gboolean on_interrupt(gpointer self);

  void watch_loop();
  void learn();
  void choose_ports();
  void tell_initial();
  [[nodiscard]] bool is_chosen(int port) const {
    return options_.ports.empty() || chosen_.contains(port);
  }
  std::string name_of(int port);
  SupervisedWord word_of(const SeenState& seen) const;
  void tell_state(const char* kind, const SeenState& seen, const Json& more,
                  const std::string& remark);
  void tell_setting(int port, const char* interface, const char* property, GVariant* value);
  void tell_of_port(int port, const MonitorLine& line);
  void tell_of_daemon(const char* kind, Colour colour, const char* text);
  void tell(const MonitorLine& line);
  void restart_idle_timer();
  void end() { g_main_loop_quit(loop_.get()); }
  void fail(const CommandError& failure);

  const Daemon& daemon_;
  const MonitorOptions& options_;
  /// Whether the daemon was seen before, so that its coming now is a return.
  bool seen_ = false;
  bool present_ = false;
  const std::unique_ptr<GMainLoop, void (*)(GMainLoop*)> loop_{g_main_loop_new(nullptr, FALSE),
                                                               g_main_loop_unref};
  /// Why it ends by itself.
  std::optional<CommandError> failure_;
  std::map<int, std::string> names_;
  std::set<int> supervisable_;
  std::set<int> chosen_;
  guint counted_ = 0;
  guint idle_timer_ = 0;
};

std::string bytes_text(GVariant* value) {
  if (g_variant_is_of_type(value, G_VARIANT_TYPE_BYTESTRING)) {
    return g_variant_get_bytestring(value);
  }
  g_autofree gchar* printed = g_variant_print(value, FALSE);
  return printed;
}

// A daemon that is not there has no ports to name; its return will tell them.
void Monitor::learn() {
  names_.clear();
  try {
    for (const auto& port : daemon_.ports()) {
      names_[port.number] = port.name;
    }
    const auto numbers = supervisable_numbers(daemon_);
    supervisable_ = {numbers.begin(), numbers.end()};
  } catch (const CommandError&) {
    return;
  }
}

// A daemon that comes back without one of them may get it later; the first must know them all.
void Monitor::choose_ports() {
  if (!chosen_.empty()) {
    return;
  }
  try {
    for (const auto& port : options_.ports) {
      chosen_.insert(daemon_.port(daemon_.resolve(port)).number);
    }
  } catch (const CommandError& error) {
    fail(error);
  }
}

// A port that was out of service when the names were learned is asked for when it is heard of.
std::string Monitor::name_of(int port) {
  if (!names_.contains(port)) {
    learn();
  }
  // One that nobody names is not asked for again.
  return names_[port];
}

// Of a daemon that has gone in the meantime there is nothing to add.
SupervisedWord Monitor::word_of(const SeenState& seen) const {
  if (seen.announced || !supervisable_.contains(seen.port)) {
    return std::nullopt;
  }
  try {
    return supervised_word(daemon_, seen.port, seen.input);
  } catch (const CommandError&) {
    return std::nullopt;
  }
}

void Monitor::fail(const CommandError& failure) {
  failure_ = failure;
  end();
}

// Each line is out before the next change; nothing is thrown through a callback of the loop.
void Monitor::tell(const MonitorLine& line) {
  if (failure_) {
    return;
  }
  try {
    print_text(options_.format.shown(line));
    flush_output();
    restart_idle_timer();
  } catch (const CommandError& error) {
    fail(error);
  }
}

void Monitor::tell_of_port(int port, const MonitorLine& line) {
  if (!is_chosen(port) || (options_.count && counted_ >= *options_.count)) {
    return;
  }
  tell(line);
  counted_++;
  if (options_.count && counted_ >= *options_.count) {
    end();
  }
}

void Monitor::tell_of_daemon(const char* kind, Colour colour, const char* text) {
  tell({.kind = kind, .fields = Json::object(), .state = "", .text = coloured(colour, text)});
}

void Monitor::tell_state(const char* kind, const SeenState& seen, const Json& more,
                         const std::string& remark) {
  if (!is_chosen(seen.port)) {
    return;
  }
  const std::string name = name_of(seen.port);
  const auto word = word_of(seen);
  MonitorLine line{.kind = kind,
                   .fields = {{"port", seen.port},
                              {"name", name},
                              {"state", seen.state},
                              {"input", seen.input},
                              {"active_low", seen.activelow}},
                   .state = word ? *word : on_or_off(seen.state),
                   .text = ""};
  if (word) {
    line.fields["supervised"] = *word;
  }
  line.fields.update(more);
  line.text =
      fmt::format("port {} {}: {} ({}{}{})", seen.port, printable(name),
                  coloured(seen.state ? Colour::Green : Colour::Plain, line.state),
                  seen.input ? "input" : "output", remark, seen.activelow ? ", active low" : "");
  tell_of_port(seen.port, line);
}

void Monitor::tell_initial() {
  try {
    for (const auto& port : daemon_.ports()) {
      tell_state("initial",
                 {.port = port.number,
                  .state = port.state,
                  .input = port.input,
                  .activelow = port.activelow},
                 Json::object(), ", initial");
    }
  } catch (const CommandError&) {
    return; // gone again, of which there will be word
  }
}

// Without waiting for a next line: the reader's end is what the signal of a broken pipe tells, and
// it ends the process unless whoever started it has it ignored.
gboolean Monitor::on_reader_left(gint /*output*/, GIOCondition /*condition*/, gpointer self) {
  raise(SIGPIPE);
  static_cast<Monitor*>(self)->fail(unwritable(EPIPE));
  return G_SOURCE_REMOVE;
}

void Monitor::on_port_changed(IOControlState* /*proxy*/, gint port, gboolean is_virtual,
                              gboolean hidden, gboolean input, gboolean virtual_trig,
                              gboolean state, gboolean activelow, gpointer self) {
  static_cast<Monitor*>(self)->tell_state("port-changed",
                                          {.port = port,
                                           .state = state != FALSE,
                                           .input = input != FALSE,
                                           .activelow = activelow != FALSE,
                                           .announced = virtual_trig != FALSE},
                                          {{"virtual", is_virtual != FALSE},
                                           {"hidden", hidden != FALSE},
                                           {"virtual_trig", virtual_trig != FALSE}},
                                          virtual_trig ? ", virtual" : "");
}

void Monitor::on_sequence_done(IOControlState* /*proxy*/, gint port, gpointer self) {
  auto* monitor = static_cast<Monitor*>(self);
  if (!monitor->is_chosen(port)) {
    return;
  }
  const std::string name = monitor->name_of(port);
  monitor->tell_of_port(port,
                        {.kind = "sequence-done",
                         .fields = {{"port", port}, {"name", name}},
                         .state = "",
                         .text = fmt::format("port {} {}: sequence done", port, printable(name))});
}

void Monitor::tell_setting(int port, const char* interface, const char* property, GVariant* value) {
  const std::string name = name_of(port);
  const std::string text = bytes_text(value);
  tell_of_port(port,
               {.kind = "setting-changed",
                .fields = {{"port", port},
                           {"name", name},
                           {"interface", interface},
                           {"property", property},
                           {"value", text}},
                .state = "",
                .text = fmt::format("port {} {}: {}.{} is now '{}'", port, printable(name),
                                    printable(interface), printable(property), printable(text))});
}

void Monitor::on_setting(GDBusConnection* /*connection*/, const gchar* /*sender*/,
                         const gchar* path, const gchar* /*interface*/, const gchar* /*signal*/,
                         GVariant* arguments, gpointer self) {
  auto* monitor = static_cast<Monitor*>(self);
  if (!g_str_has_prefix(path, legacy_base_path)) {
    return;
  }
  const int port = atoi(path + strlen(legacy_base_path));
  if (!monitor->is_chosen(port)) {
    return;
  }
  const char* interface = nullptr;
  GVariantIter* changed = nullptr;
  g_variant_get(arguments, "(&sa{sv}as)", &interface, &changed, nullptr);
  const char* const side = g_str_has_prefix(interface, legacy_interface_prefix)
                               ? interface + strlen(legacy_interface_prefix)
                               : interface;
  const char* property = nullptr;
  GVariant* value = nullptr;
  while (g_variant_iter_next(changed, "{&sv}", &property, &value)) {
    const Variant owned(value);
    monitor->tell_setting(port, side, property, value);
  }
  g_variant_iter_free(changed);
}

void Monitor::on_appeared(GDBusConnection* /*connection*/, const gchar* /*name*/,
                          const gchar* /*owner*/, gpointer self) {
  auto* monitor = static_cast<Monitor*>(self);
  monitor->learn();
  monitor->choose_ports();
  if (monitor->seen_) {
    monitor->tell_of_daemon("daemon-back", Colour::Bold, "wexd is back");
  } else if (!monitor->options_.quiet) {
    monitor->tell_of_daemon("watching", Colour::Bold, "watching wexd");
  }
  monitor->seen_ = true;
  monitor->present_ = true;
  if (monitor->options_.initial && !monitor->failure_) {
    monitor->tell_initial();
  }
}

// Comes before or after the daemon's other names.
void Monitor::on_supervision_served(GObject* /*proxy*/, GParamSpec* /*property*/, gpointer self) {
  static_cast<Monitor*>(self)->learn();
}

void Monitor::on_vanished(GDBusConnection* /*connection*/, const gchar* /*name*/, gpointer self) {
  auto* monitor = static_cast<Monitor*>(self);
  const bool left = monitor->present_;
  monitor->present_ = false;
  monitor->seen_ = true;
  monitor->tell_of_daemon(left ? "daemon-gone" : "daemon-absent", Colour::Yellow,
                          left ? "wexd is gone, waiting for it"
                               : "wexd is not running, waiting for it");
}

void Monitor::on_bus_closed(GDBusConnection* /*connection*/, gboolean /*by_peer*/,
                            GError* /*error*/, gpointer self) {
  static_cast<Monitor*>(self)->fail(unreachable("the system bus has ended"));
}

gboolean Monitor::on_idle_timeout(gpointer self) {
  auto* monitor = static_cast<Monitor*>(self);
  monitor->idle_timer_ = 0;
  monitor->end();
  return G_SOURCE_REMOVE;
}

gboolean Monitor::on_timeout(gpointer self) {
  static_cast<Monitor*>(self)->fail(timed_out());
  return G_SOURCE_CONTINUE;
}

gboolean Monitor::on_interrupt(gpointer self) {
  static_cast<Monitor*>(self)->end();
  return G_SOURCE_CONTINUE;
}

void Monitor::restart_idle_timer() {
  if (idle_timer_ != 0) {
    g_source_remove(std::exchange(idle_timer_, 0));
  }
  if (options_.idle_timeout) {
    idle_timer_ = g_timeout_add(*options_.idle_timeout, on_idle_timeout, this);
  }
}

void Monitor::watch_loop() {
  const guint interrupted = g_unix_signal_add(SIGINT, on_interrupt, this);
  const guint terminated = g_unix_signal_add(SIGTERM, on_interrupt, this);
  const guint timer = options_.timeout ? g_timeout_add(*options_.timeout, on_timeout, this) : 0;
  restart_idle_timer();
  // No condition is asked for, so that only an error is told.
  g_unix_fd_add(STDOUT_FILENO, G_IO_ERR, on_reader_left, this);
  g_main_loop_run(loop_.get());
  g_source_remove(interrupted);
  g_source_remove(terminated);
  if (timer != 0) {
    g_source_remove(timer);
  }
}

void Monitor::run() {
  const SignalHandler changed(daemon_.state(), "port-changed", G_CALLBACK(on_port_changed), this);
  const SignalHandler done(daemon_.state(), "action-sequence-done", G_CALLBACK(on_sequence_done),
                           this);
  const SignalHandler supervision(daemon_.supervised(), "notify::g-name-owner",
                                  G_CALLBACK(on_supervision_served), this);
  const SignalHandler closed(daemon_.connection(), "closed", G_CALLBACK(on_bus_closed), this);
  const guint subscription = g_dbus_connection_signal_subscribe(
      daemon_.connection(), nullptr, "org.freedesktop.DBus.Properties", "PropertiesChanged",
      nullptr, nullptr, G_DBUS_SIGNAL_FLAGS_NONE, on_setting, this, nullptr);
  const guint watch = g_bus_watch_name_on_connection(daemon_.connection(), state_name,
                                                     G_BUS_NAME_WATCHER_FLAGS_NONE, on_appeared,
                                                     on_vanished, this, nullptr);
  watch_loop();
  g_bus_unwatch_name(watch);
  g_dbus_connection_signal_unsubscribe(daemon_.connection(), subscription);
  if (failure_) {
    throw CommandError(*failure_);
  }
}

} // namespace

void monitor(const Daemon& daemon, const MonitorOptions& options) {
  if (std::ranges::find(options.ports, "") != options.ports.end()) {
    throw empty_port();
  }
  Monitor(daemon, options).run();
}

} // namespace wexctl
