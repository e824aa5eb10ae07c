#include "wexctl/status.h"

#include "platform/boot-time.h"
#include "wexctl/output.h"

#include <fmt/format.h>

namespace wexctl {

namespace {

Json text_json(const Variant& texts) {
  Json array = Json::array();
  GVariantIter iter;
  g_variant_iter_init(&iter, texts.get());
  const char* text = nullptr;
  while (g_variant_iter_next(&iter, "&s", &text)) {
    array.push_back(text);
  }
  return array;
}

Json missing_json(const Variant& ports) {
  Json array = Json::array();
  GVariantIter iter;
  g_variant_iter_init(&iter, ports.get());
  const char* name = nullptr;
  gint number = 0;
  gboolean optional = FALSE;
  const char* reason = nullptr;
  while (g_variant_iter_next(&iter, "(&sib&s)", &name, &number, &optional, &reason)) {
    array.push_back(
        {{"number", number}, {"name", name}, {"optional", optional != FALSE}, {"reason", reason}});
  }
  return array;
}

// The daemon counts from the boot; the day is what this machine takes for it now.
std::string time_text(guint64 since_boot_us, const char* format) {
  const gint64 age_us = boot_time_us() - static_cast<gint64>(since_boot_us);
  g_autoptr(GDateTime) now = g_date_time_new_now_local();
  g_autoptr(GDateTime) then = g_date_time_add(now, -age_us);
  g_autofree gchar* text = g_date_time_format(then, format);
  return text;
}

// As RFC 3339 has it.
constexpr const char* exact = "%FT%T%:z";

class Inquiry {
public:
  explicit Inquiry(const Daemon& daemon) : daemon_(daemon) {
    add_properties();
    add_sequences();
    add_services();
    add_last_failed_save();
  }

  [[nodiscard]] const Json& json() const { return json_; }

private:
  void add_properties();
  void add_sequences();
  void add_services();
  void add_last_failed_save();
  [[nodiscard]] Variant ask(const char* interface, const char* method, GVariant* arguments) const;
  [[nodiscard]] Variant ask(const char* method) const {
    return ask("com.norv.IOControl.Manager1", method, nullptr);
  }

  const Daemon& daemon_;
  Json json_;
};

Variant Inquiry::ask(const char* interface, const char* method, GVariant* arguments) const {
  auto* const proxy = G_DBUS_PROXY(daemon_.manager());
  GError* error = nullptr;
  Variant answer(g_dbus_connection_call_sync(
      daemon_.connection(), g_dbus_proxy_get_name(proxy), g_dbus_proxy_get_object_path(proxy),
      interface, method, arguments, nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, nullptr, &error));
  if (answer == nullptr) {
    throw_bus_error(error);
  }
  return answer;
}

Variant property(const Variant& all, const char* name, const char* type) {
  Variant value(g_variant_lookup_value(all.get(), name, G_VARIANT_TYPE(type)));
  if (value == nullptr) {
    throw CommandError(Status::Refused, fmt::format("wexd has no property {}", name));
  }
  return value;
}

void Inquiry::add_properties() {
  const auto answer = ask("org.freedesktop.DBus.Properties", "GetAll",
                          g_variant_new("(s)", "com.norv.IOControl.Manager1"));
  const Variant all(g_variant_get_child_value(answer.get(), 0));
  json_["version"] = g_variant_get_string(property(all, "Version", "s").get(), nullptr);
  json_["started"] = time_text(g_variant_get_uint64(property(all, "StartedAt", "t").get()), exact);
  json_["bus_names"] = text_json(property(all, "BusNames", "as"));
  json_["ports"] = g_variant_get_uint32(property(all, "Ports", "u").get());
  json_["ports_in_service"] = g_variant_get_uint32(property(all, "PortsInService", "u").get());
  json_["missing"] = missing_json(property(all, "MissingPorts", "a(sibs)"));
}

void Inquiry::add_sequences() {
  const auto answer = ask("GetRunningSequences");
  json_["sequences"] = Json::array();
  GVariantIter* numbers = nullptr;
  g_variant_get(answer.get(), "(au)", &numbers);
  guint number = 0;
  while (g_variant_iter_next(numbers, "u", &number)) {
    json_["sequences"].push_back(number);
  }
  g_variant_iter_free(numbers);
}

void Inquiry::add_services() {
  const auto answer = ask("GetServices");
  json_["services"] = Json::array();
  GVariantIter* services = nullptr;
  g_variant_get(answer.get(), "(a(sbb))", &services);
  const char* name = nullptr;
  gboolean there = FALSE;
  gboolean left_alone = FALSE;
  while (g_variant_iter_next(services, "(&sbb)", &name, &there, &left_alone)) {
    json_["services"].push_back(
        {{"name", name}, {"there", there != FALSE}, {"left_alone", left_alone != FALSE}});
  }
  g_variant_iter_free(services);
}

void Inquiry::add_last_failed_save() {
  const auto answer = ask("GetLastFailedSave");
  gboolean failed = FALSE;
  guint64 at = 0;
  const char* reason = nullptr;
  gboolean made_good = FALSE;
  g_variant_get(answer.get(), "(bt&sb)", &failed, &at, &reason, &made_good);
  json_["last_failed_save"] = nullptr;
  if (failed != FALSE) {
    json_["last_failed_save"] = {
        {"time", time_text(at, exact)}, {"reason", reason}, {"made_good", made_good != FALSE}};
  }
}

std::string joined(const Json& values) {
  std::string text;
  for (const auto& value : values) {
    text += (text.empty() ? "" : ", ")
            + printable(value.is_string() ? value.get<std::string>() : value.dump());
  }
  return text.empty() ? "none" : text;
}

std::string text_of(const Json& object, const char* key) {
  return printable(object[key].get<std::string>());
}

void print_missing(const Json& missing) {
  for (const auto& port : missing) {
    const auto reason = text_of(port, "reason");
    print("  missing       port {} {}{}: {}\n", port["number"].dump(), text_of(port, "name"),
          port["optional"] == true ? " (optional)" : "", reason.empty() ? "not known why" : reason);
  }
}

void print_services(const Json& services) {
  for (const auto& service : services) {
    const char* const state = service["left_alone"] == true ? "does not answer"
                              : service["there"] == true    ? "there"
                                                            : "not there";
    print("  service       {} {}\n", text_of(service, "name"), state);
  }
}

std::string running_text(const Json& sequences) {
  if (sequences.empty()) {
    return "no sequence";
  }
  return fmt::format("{} {}", sequences.size() == 1 ? "a sequence on port" : "sequences on ports",
                     joined(sequences));
}

void print_status(const Json& status) {
  print("wexd {}, since {}\n", text_of(status, "version"), text_of(status, "started"));
  print("  bus names     {}\n", joined(status["bus_names"]));
  const bool all = status["ports"] == status["ports_in_service"];
  print("  ports         {}\n",
        coloured(all ? Colour::Green : Colour::Yellow,
                 fmt::format("{} of {} in service", status["ports_in_service"].dump(),
                             status["ports"].dump())));
  print_missing(status["missing"]);
  print("  running       {}\n", running_text(status["sequences"]));
  print_services(status["services"]);
  const auto& failed = status["last_failed_save"];
  if (failed.is_null()) {
    print("  failed save   none\n");
  } else {
    print("  failed save   {}: {}; {}\n", text_of(failed, "time"), text_of(failed, "reason"),
          failed["made_good"] == true ? "saved since" : "not saved yet");
  }
}

} // namespace

Json daemon_status(const Daemon& daemon) {
  return Inquiry(daemon).json();
}

void show_status(const Daemon& daemon, bool json) {
  const auto status = daemon_status(daemon);
  json ? print_json(status) : print_status(status);
}

} // namespace wexctl
