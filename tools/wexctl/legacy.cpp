#include "wexctl/legacy.h"

#include "wexctl/output.h"

#include <fmt/format.h>

#include <array>

namespace wexctl {

namespace {

constexpr const char* service = "com.norv.Configuration.Legacy.IOControl1.IOPort";
constexpr const char* base_path = "/com/norv/Configuration/Legacy/IOControl/IOPort";
constexpr const char* interface_prefix = "com.norv.Configuration.Legacy.IOControl1.";
constexpr std::array interfaces{"IOPort", "Input", "Output"};

std::string object_path(guint number) {
  return fmt::format("{}/{}", base_path, number);
}

Variant call_properties(const Daemon& daemon, guint number, const char* method, GVariant* arguments,
                        const char* reply_type) {
  GError* error = nullptr;
  Variant reply(g_dbus_connection_call_sync(
      daemon.connection(), service, object_path(number).c_str(), "org.freedesktop.DBus.Properties",
      method, arguments, G_VARIANT_TYPE(reply_type), G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, nullptr,
      &error));
  if (reply == nullptr) {
    if (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER) && daemon.present()) {
      g_error_free(error);
      throw unreachable("it does without its legacy interface");
    }
    throw_bus_error(error);
  }
  return reply;
}

Json value_json(GVariant* value) {
  if (g_variant_is_of_type(value, G_VARIANT_TYPE_INT32)) {
    return g_variant_get_int32(value);
  }
  if (g_variant_is_of_type(value, G_VARIANT_TYPE_BOOLEAN)) {
    return g_variant_get_boolean(value) != FALSE;
  }
  if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING)) {
    return g_variant_get_string(value, nullptr);
  }
  g_autofree gchar* printed = g_variant_print(value, FALSE);
  return printed;
}

// Every property of the port, by "Interface.Name". An interface that the port lacks is left out.
Json all_properties(const Daemon& daemon, guint number) {
  Json all = Json::object();
  for (const char* interface : interfaces) {
    const std::string full = std::string(interface_prefix) + interface;
    Variant reply;
    try {
      reply =
          call_properties(daemon, number, "GetAll", g_variant_new("(s)", full.c_str()), "(a{sv})");
    } catch (const CommandError& error) {
      if (interface == interfaces.front() || error.status() != Status::Refused) {
        throw;
      }
      continue;
    }
    const Variant values(g_variant_get_child_value(reply.get(), 0));
    GVariantIter iter;
    g_variant_iter_init(&iter, values.get());
    const char* name = nullptr;
    GVariant* value = nullptr;
    while (g_variant_iter_next(&iter, "{&sv}", &name, &value)) {
      all[std::string(interface) + '.' + name] = value_json(value);
      g_variant_unref(value);
    }
  }
  return all;
}

// The full "Interface.Name" of a property told by name alone, which must then be unambiguous.
std::string qualified(const Json& all, const std::string& property) {
  if (property.find('.') != std::string::npos) {
    return property;
  }
  std::string found;
  for (const auto& [key, value] : all.items()) {
    if (key.substr(key.find('.') + 1) != property) {
      continue;
    }
    if (!found.empty()) {
      throw CommandError(Status::Usage,
                         fmt::format("'{}' is both {} and {}; say which", property, found, key));
    }
    found = key;
  }
  if (found.empty()) {
    throw CommandError(Status::Refused, fmt::format("the port has no property '{}'", property));
  }
  return found;
}

GVariant* typed_value(const std::string& name, const std::string& text) {
  if (name == "PulseTime" || name == "DelayTime") {
    gint64 number = 0;
    if (!g_ascii_string_to_signed(text.c_str(), 10, G_MININT32, G_MAXINT32, &number, nullptr)) {
      throw CommandError(Status::Usage, fmt::format("{} is a number of milliseconds", name));
    }
    return g_variant_new_int32(static_cast<gint32>(number));
  }
  return g_variant_new_bytestring(text.c_str());
}

std::string text_of(const Json& value) {
  return value.is_string() ? value.get<std::string>() : value.dump();
}

} // namespace

void legacy_get(const Daemon& daemon, const std::string& port, const std::string& property,
                bool json) {
  const auto all = all_properties(daemon, daemon.resolve(port));
  if (!property.empty()) {
    const auto key = qualified(all, property);
    if (!all.contains(key)) {
      throw CommandError(Status::Refused, fmt::format("the port has no property '{}'", key));
    }
    print("{}\n", json ? json_text(all[key]) : printable(text_of(all[key])));
    return;
  }
  if (json) {
    print_json(all);
    return;
  }
  Table table({"Property", "Value"});
  for (const auto& [key, value] : all.items()) {
    table.add({key, text_of(value)});
  }
  table.print();
}

void legacy_set(const Daemon& daemon, const std::string& port, const std::string& property,
                const std::string& value) {
  const guint number = daemon.resolve(port);
  const auto key = qualified(all_properties(daemon, number), property);
  const auto dot = key.find('.');
  const std::string interface = interface_prefix + key.substr(0, dot);
  const std::string name = key.substr(dot + 1);
  call_properties(daemon, number, "Set",
                  g_variant_new("(ssv)", interface.c_str(), name.c_str(), typed_value(name, value)),
                  "()");
}

} // namespace wexctl
