#include "wexctl/changes.h"

#include "wexctl/output.h"

#include <fmt/format.h>

#include <cstring>

namespace wexctl {

namespace {

constexpr const char* state_name = "com.norv.IOControl.State";
constexpr const char* legacy_base_path = "/com/norv/Configuration/Legacy/IOControl/IOPort/";
constexpr const char* legacy_interface_prefix = "com.norv.Configuration.Legacy.IOControl1.";

std::string bytes_text(GVariant* value) {
  if (g_variant_is_of_type(value, G_VARIANT_TYPE_BYTESTRING)) {
    return g_variant_get_bytestring(value);
  }
  g_autofree gchar* printed = g_variant_print(value, FALSE);
  return printed;
}

MonitorLine daemon_line(const char* kind, Colour colour, const char* text) {
  return {.kind = kind, .fields = Json::object(), .state = "", .text = coloured(colour, text)};
}

} // namespace

Changes::Changes(const Daemon& daemon, ChangeListener& listener)
    : daemon_(daemon), listener_(listener),
      changed_(daemon.state(), "port-changed", G_CALLBACK(on_port_changed), this),
      done_(daemon.state(), "action-sequence-done", G_CALLBACK(on_sequence_done), this),
      supervision_(daemon.supervised(), "notify::g-name-owner", G_CALLBACK(on_supervision_served),
                   this),
      settings_(g_dbus_connection_signal_subscribe(
          daemon.connection(), state_name, "org.freedesktop.DBus.Properties", "PropertiesChanged",
          nullptr, nullptr, G_DBUS_SIGNAL_FLAGS_NONE, on_setting, this, nullptr)),
      watch_(g_bus_watch_name_on_connection(daemon.connection(), state_name,
                                            G_BUS_NAME_WATCHER_FLAGS_NONE, on_appeared, on_vanished,
                                            this, nullptr)) {}

Changes::~Changes() {
  g_bus_unwatch_name(watch_);
  g_dbus_connection_signal_unsubscribe(daemon_.connection(), settings_);
}

// A daemon that is not there, or not whole, has no ports to name; its return will tell them. It is
// not called: the bus library loses the arguments of calls to names that nobody owns.
void Changes::learn() {
  names_.clear();
  if (!daemon_.present()) {
    return;
  }
  try {
    for (const auto& port : daemon_.ports()) {
      names_[port.number] = port.name;
    }
    if (daemon_.supervises()) {
      const auto numbers = supervisable_numbers(daemon_);
      supervisable_ = {numbers.begin(), numbers.end()};
    }
  } catch (const CommandError&) {
    return;
  }
}

// A port that was out of service when the names were learned is asked for when it is heard of.
std::string Changes::name_of(int port) {
  if (!names_.contains(port)) {
    learn();
  }
  // One that nobody names is not asked for again.
  return names_[port];
}

// Of a daemon that has gone in the meantime there is nothing to add.
SupervisedWord Changes::word_of(const SeenState& seen) const {
  if (seen.announced || !supervisable_.contains(seen.port)) {
    return std::nullopt;
  }
  try {
    return supervised_word(daemon_, seen.port, seen.input);
  } catch (const CommandError&) {
    return std::nullopt;
  }
}

void Changes::tell_state(const char* kind, const SeenState& seen, const Json& more,
                         const std::string& remark) {
  if (!listener_.wants(seen.port)) {
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
  listener_.on_port(seen.port, line);
}

void Changes::tell_initial() {
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

void Changes::on_port_changed(IOControlState* /*proxy*/, gint port, gboolean is_virtual,
                              gboolean hidden, gboolean input, gboolean virtual_trig,
                              gboolean state, gboolean activelow, gpointer self) {
  static_cast<Changes*>(self)->tell_state("port-changed",
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

void Changes::on_sequence_done(IOControlState* /*proxy*/, gint port, gpointer self) {
  auto* changes = static_cast<Changes*>(self);
  if (!changes->listener_.wants(port)) {
    return;
  }
  const std::string name = changes->name_of(port);
  changes->listener_.on_port(
      port, {.kind = "sequence-done",
             .fields = {{"port", port}, {"name", name}},
             .state = "",
             .text = fmt::format("port {} {}: sequence done", port, printable(name))});
}

void Changes::tell_setting(int port, const char* interface, const char* property, GVariant* value) {
  const std::string name = name_of(port);
  const std::string text = bytes_text(value);
  listener_.on_port(
      port, {.kind = "setting-changed",
             .fields = {{"port", port},
                        {"name", name},
                        {"interface", interface},
                        {"property", property},
                        {"value", text}},
             .state = "",
             .text = fmt::format("port {} {}: {}.{} is now '{}'", port, printable(name),
                                 printable(interface), printable(property), printable(text))});
}

void Changes::on_setting(GDBusConnection* /*connection*/, const gchar* /*sender*/,
                         const gchar* path, const gchar* /*interface*/, const gchar* /*signal*/,
                         GVariant* arguments, gpointer self) {
  auto* changes = static_cast<Changes*>(self);
  if (!g_str_has_prefix(path, legacy_base_path)) {
    return;
  }
  const int port = atoi(path + strlen(legacy_base_path));
  if (!changes->listener_.wants(port)) {
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
    changes->tell_setting(port, side, property, value);
  }
  g_variant_iter_free(changed);
}

void Changes::on_appeared(GDBusConnection* /*connection*/, const gchar* /*name*/,
                          const gchar* /*owner*/, gpointer self) {
  auto* changes = static_cast<Changes*>(self);
  changes->learn();
  const bool back = std::exchange(changes->seen_, true);
  changes->present_ = true;
  changes->listener_.on_daemon_there(back ? daemon_line("daemon-back", Colour::Bold, "wexd is back")
                                          : daemon_line("watching", Colour::Bold, "watching wexd"));
}

// Comes before or after the daemon's other names.
void Changes::on_supervision_served(GObject* /*proxy*/, GParamSpec* /*property*/, gpointer self) {
  static_cast<Changes*>(self)->learn();
}

void Changes::on_vanished(GDBusConnection* /*connection*/, const gchar* /*name*/, gpointer self) {
  auto* changes = static_cast<Changes*>(self);
  changes->seen_ = true;
  changes->listener_.on_daemon_absent(
      std::exchange(changes->present_, false)
          ? daemon_line("daemon-gone", Colour::Yellow, "wexd is gone, waiting for it")
          : daemon_line("daemon-absent", Colour::Yellow, "wexd is not running, waiting for it"));
}

} // namespace wexctl
