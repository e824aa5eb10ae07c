#include "wexctl/bus.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <iterator>

namespace wexctl {

namespace {

constexpr const char* state_name = "com.norv.IOControl.State";
constexpr auto proxy_flags = static_cast<GDBusProxyFlags>(G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES
                                                          | G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START);

// The proxy of an object, by the function that makes such ones.
template <typename Proxy>
Owned<Proxy> service(Proxy* (*create)(GDBusConnection*, GDBusProxyFlags, const gchar*, const gchar*,
                                      GCancellable*, GError**),
                     GDBusConnection* connection, const char* name, const char* path) {
  GError* error = nullptr;
  Owned<Proxy> proxy(create(connection, proxy_flags, name, path, nullptr, &error));
  if (proxy == nullptr) {
    throw_bus_error(error);
  }
  return proxy;
}

bool has_owner(gpointer proxy) {
  g_autofree gchar* owner = g_dbus_proxy_get_name_owner(G_DBUS_PROXY(proxy));
  return owner != nullptr;
}

// A daemon has its objects for a shorter time than its names.
bool lacks_its_objects(const GError* error) {
  return g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_METHOD)
         || g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_OBJECT);
}

// Errors that say that nobody answers, rather than that somebody refused.
bool nobody_answers(const GError* error) {
  if (lacks_its_objects(error)) {
    return true;
  }
  static constexpr std::array codes{G_DBUS_ERROR_SERVICE_UNKNOWN, G_DBUS_ERROR_NAME_HAS_NO_OWNER,
                                    G_DBUS_ERROR_NO_REPLY, G_DBUS_ERROR_DISCONNECTED};
  return error->domain != G_DBUS_ERROR
             ? error->domain == G_IO_ERROR && error->code != G_IO_ERROR_DBUS_ERROR
             : std::ranges::find(codes, error->code) != codes.end();
}

// The bus has its whole process ignore the end of a reader. That of standard output is to end this
// one as it would any filter; sockets are written to without the signal anyway.
class KeptSigpipe {
public:
  KeptSigpipe() { sigaction(SIGPIPE, nullptr, &inherited_); }
  ~KeptSigpipe() { sigaction(SIGPIPE, &inherited_, nullptr); }
  KeptSigpipe(const KeptSigpipe&) = delete;
  KeptSigpipe& operator=(const KeptSigpipe&) = delete;

private:
  struct sigaction inherited_ {};
};

// What the bus and its library say of that is about their insides.
std::string absence(const GError* error) {
  if (error->domain == G_DBUS_ERROR && error->code == G_DBUS_ERROR_NO_REPLY) {
    return "it gave no answer";
  }
  if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT)) {
    return "it gave no answer in time";
  }
  if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CLOSED)
      || g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_DISCONNECTED)) {
    return "the system bus has ended";
  }
  return lacks_its_objects(error) ? "it is starting or ending" : "it is not running";
}

// A bus that ends while proxies are made is an error of theirs, told once; the library's remarks on
// each message that it could not send tell nothing more.
void hush_the_library() {
  const auto hush = [](const gchar* domain, GLogLevelFlags level, const gchar* message,
                       gpointer data) {
    if (!g_str_has_prefix(message, "Error while sending ")) {
      g_log_default_handler(domain, level, message, data);
    }
  };
  g_log_set_handler("GLib-GIO", G_LOG_LEVEL_CRITICAL, hush, nullptr);
}

bool is_number(const std::string& text) {
  return !text.empty() && std::ranges::all_of(text, [](char c) { return g_ascii_isdigit(c); });
}

PortInfo port_info(GVariant* entry) {
  const char* name = nullptr;
  gint number = 0;
  gboolean state = FALSE;
  gboolean input = FALSE;
  gboolean configurable = FALSE;
  gboolean activelow = FALSE;
  GVariant* properties = nullptr;
  g_variant_get(entry, "(&sibbbb@a(sb))", &name, &number, &state, &input, &configurable, &activelow,
                &properties);
  const Variant owned(properties);
  PortInfo info{.name = name,
                .number = number,
                .state = state != FALSE,
                .input = input != FALSE,
                .configurable = configurable != FALSE,
                .activelow = activelow != FALSE,
                .properties = {}};
  GVariantIter iter;
  g_variant_iter_init(&iter, properties);
  const char* key = nullptr;
  gboolean value = FALSE;
  while (g_variant_iter_next(&iter, "(&sb)", &key, &value)) {
    info.properties.push_back({.key = key, .value = value != FALSE});
  }
  std::ranges::sort(info.properties, {}, &Property::key);
  return info;
}

// What users see of the side in use; the other side's name says nothing of the port as it is now. A
// port that has gone since it was listed has none.
std::string shown_name(IOControlState* state, const PortInfo& port) {
  g_autofree gchar* input = nullptr;
  g_autofree gchar* output = nullptr;
  GError* error = nullptr;
  if (!iocontrol_state_call_get_names_sync(state, static_cast<guint>(port.number), &input, &output,
                                           nullptr, &error)) {
    if (nobody_answers(error)) {
      throw_bus_error(error);
    }
    g_error_free(error);
    return "";
  }
  return port.input ? input : output;
}

// The number that all of the ports have, or a refusal to choose among them.
guint only_one(const std::vector<PortInfo>& found, const std::string& name) {
  if (std::ranges::all_of(found, [&](auto& port) { return port.number == found[0].number; })) {
    return static_cast<guint>(found[0].number);
  }
  std::string candidates;
  for (const auto& port : found) {
    candidates += fmt::format("{}{} {}", candidates.empty() ? "" : ", ", port.number, port.name);
  }
  throw CommandError(
      Status::Usage,
      fmt::format("'{}' is the name of several ports: {}; say which by number", name, candidates));
}

} // namespace

CommandError unreachable(const std::string& reason) {
  return CommandError(Status::Unreachable, fmt::format("wexd does not answer: {}", reason));
}

CommandError empty_port() {
  return CommandError(Status::Usage, "PORT is empty");
}

void throw_bus_error(GError* error) {
  const std::unique_ptr<GError, void (*)(GError*)> owned(error, g_error_free);
  g_autofree gchar* name = g_dbus_error_get_remote_error(error);
  if (nobody_answers(error)) {
    throw unreachable(absence(error));
  }
  if (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED)) {
    throw CommandError(Status::Refused, "only root and the group wxd may do this "
                                        "(org.freedesktop.DBus.Error.AccessDenied)");
  }
  g_dbus_error_strip_remote_error(error);
  throw CommandError(Status::Refused, name != nullptr ? fmt::format("{} ({})", error->message, name)
                                                      : std::string(error->message));
}

bool PortInfo::has(const std::string& property) const {
  return std::ranges::any_of(
      properties, [&](const Property& entry) { return entry.key == property && entry.value; });
}

Daemon::Daemon() {
  const KeptSigpipe kept;
  hush_the_library();
  GError* error = nullptr;
  connection_.reset(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error));
  if (connection_ == nullptr) {
    const std::unique_ptr<GError, void (*)(GError*)> owned(error, g_error_free);
    throw unreachable(fmt::format("no system bus: {}", error->message));
  }
  g_dbus_connection_set_exit_on_close(connection(), FALSE);
  state_ = service(iocontrol_state_proxy_new_sync, connection(), state_name,
                   "/com/norv/IOControl/State");
  manager_ = service(iocontrol_manager1_proxy_new_sync, connection(), state_name,
                     "/com/norv/IOControl/Manager");
  connector_ = service(wxd_connector_proxy_new_sync, connection(), "com.norv.WXD.Connector",
                       "/com/norv/WXD/Connector");
  supervised_ = service(iosupervised_supervised_proxy_new_sync, connection(),
                        "com.norv.IOSupervised.Supervised", "/com/norv/IOSupervised/Supervised");
}

bool Daemon::present() const {
  return has_owner(state());
}

bool Daemon::supervises() const {
  return has_owner(supervised());
}

std::vector<PortInfo> Daemon::ports() const {
  GError* error = nullptr;
  gint count = 0;
  GVariant* properties = nullptr;
  if (!iocontrol_state_call_get_port_props_sync(state(), &count, &properties, nullptr, &error)) {
    throw_bus_error(error);
  }
  const Variant owned(properties);
  std::vector<PortInfo> ports;
  for (gsize i = 0; i < g_variant_n_children(properties); i++) {
    const Variant entry(g_variant_get_child_value(properties, i));
    ports.push_back(port_info(entry.get()));
  }
  std::ranges::stable_sort(ports, {}, &PortInfo::number);
  return ports;
}

PortInfo Daemon::port(guint number) const {
  for (const auto& port : ports()) {
    if (port.number == static_cast<int>(number)) {
      return port;
    }
  }
  throw CommandError(Status::Refused, fmt::format("no port has number {}", number));
}

guint Daemon::resolve(const std::string& port) const {
  if (is_number(port)) {
    const guint64 number = g_ascii_strtoull(port.c_str(), nullptr, 10);
    if (number > G_MAXINT32) {
      throw CommandError(Status::Usage, fmt::format("{} is no port number", port));
    }
    return static_cast<guint>(number);
  }
  if (port.empty()) {
    throw empty_port();
  }
  auto published = ports();
  std::erase_if(published, [](const PortInfo& entry) { return entry.number < 0; });
  std::vector<PortInfo> found;
  std::ranges::copy_if(published, std::back_inserter(found),
                       [&](const PortInfo& entry) { return entry.name == port; });
  if (found.empty()) {
    std::ranges::copy_if(published, std::back_inserter(found), [&](const PortInfo& entry) {
      return entry.has("ioport") && shown_name(state(), entry) == port;
    });
  }
  if (found.empty()) {
    throw CommandError(Status::Refused, fmt::format("no port is called '{}'", port));
  }
  return only_one(found, port);
}

} // namespace wexctl
