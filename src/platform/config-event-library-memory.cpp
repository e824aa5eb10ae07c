// Stand-in for the device's configuration-event library:
//
//   config-event declare producer=wexd interface=... path=...
//   config-event change producer=wexd interface=... path=... kind=3 NbrOfInputs=4
//   config-event undeclare producer=wexd interface=... path=...
#include "platform/config-event-library.h"

#include "platform/log.h"

#include <set>
#include <string>
#include <tuple>

namespace {

using Declared = std::tuple<std::string, std::string, std::string>;

} // namespace

struct NvConfigEvent {
  std::string producer_name;
  std::set<Declared> declared = {};
};

namespace {

void log_line(const char* what, const NvConfigEvent* handle, const char* interface_name,
              const char* path, const std::string& rest = "") {
  g_message("%sconfig-event %s producer=%s interface=%s path=%s%s", log_prefix, what,
            handle->producer_name.c_str(), interface_name, path, rest.c_str());
}

} // namespace

GQuark nv_config_event_error_quark() {
  return g_quark_from_static_string("nv-config-event-error-quark");
}

NvConfigEvent* nv_config_event_new(const char* producer_name, NvEventProducer* /*producer*/) {
  return new NvConfigEvent{.producer_name = producer_name};
}

void nv_config_event_free(NvConfigEvent* handle) {
  delete handle;
}

bool nv_config_event_declare(NvConfigEvent* handle, const char* interface_name, const char* path,
                             const char* group, GError** error) {
  if (!handle->declared.emplace(interface_name, path, group).second) {
    g_set_error(error, nv_config_event_error_quark(), NV_CONFIG_EVENT_ERROR_DECLARED,
                "%s at %s is declared already", interface_name, path);
    return false;
  }
  log_line("declare", handle, interface_name, path);
  return true;
}

bool nv_config_event_undeclare(NvConfigEvent* handle, const char* interface_name, const char* path,
                               const char* group) {
  if (handle->declared.erase({interface_name, path, group}) == 0) {
    return false;
  }
  log_line("undeclare", handle, interface_name, path);
  return true;
}

GString* nv_config_event_change_new() {
  return g_string_new(nullptr);
}

void nv_config_event_change_append(GString* change, const char* name, const char* value) {
  g_autofree gchar* escaped = g_uri_escape_string(value, " :/", TRUE);
  if (change->len > 0) {
    g_string_append_c(change, '&');
  }
  g_string_append_printf(change, "%s=%s", name, escaped);
}

bool nv_config_event_send(NvConfigEvent* handle, const char* interface_name, const char* path,
                          const char* group, const char* /*object*/, guint kind,
                          const GString* change, GError** error) {
  if (!handle->declared.contains({interface_name, path, group})) {
    g_set_error(error, nv_config_event_error_quark(), NV_CONFIG_EVENT_ERROR_NOT_DECLARED,
                "%s at %s is not declared", interface_name, path);
    return false;
  }
  log_line("change", handle, interface_name, path,
           " kind=" + std::to_string(kind) + ' ' + change->str);
  return true;
}
