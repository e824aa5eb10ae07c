// Objects are registered by hand, from one introspection text, and serve the rows of
// legacy-properties.cpp.
#include "dbus/iocontrol-conf-legacy-dbus.h"

#include "dbus/dbus-handles.h"
#include "dbus/legacy-names.h"
#include "dbus/legacy-properties.h"
#include "generated/legacy-xml.h"
#include "platform/bus-connection.h"
#include "platform/config-event-library.h"
#include "platform/log.h"
#include "port/action-sequence.h"
#include "port/ioport-list.h"
#include "port/port-observer.h"

#include <cstdio>
#include <list>
#include <set>
#include <tuple>

/// What is published.
struct LegacyCtrl {
  ObjectRef<GDBusConnection> connection;
  /// Latest first.
  std::list<guint> registrations;
  GDBusNodeInfo* node_info = nullptr;
  NvEventProducer* event_producer = nullptr;
  NvConfigEvent* config_event = nullptr;
};

namespace {

constexpr const char* producer_name = "wexd";
constexpr guint change_kind = 3;
constexpr gint default_timeout = -1;

/// Position of each interface in the introspection text.
enum InterfacePosition : guint { IoPortInterface = 0, InputInterface = 1, OutputInterface = 2 };

std::string object_path(gint port_number) {
  return std::string(legacy_base_path) + '/' + std::to_string(port_number);
}

std::string change_text(GVariant* value) {
  if (g_variant_is_of_type(value, G_VARIANT_TYPE_INT32)) {
    return std::to_string(g_variant_get_int32(value));
  }
  if (g_variant_is_of_type(value, G_VARIANT_TYPE_BOOLEAN)) {
    return std::to_string(g_variant_get_boolean(value));
  }
  return g_variant_get_string(value, nullptr);
}

// Sends one setting of the device to the configuration-event service; values of other types than
// integer, boolean and string are not sent.
void send_configuration_change(const LegacyCtrl& ctrl, const char* property,
                               GVariant* floating_value) {
  g_autoptr(GVariant) value = g_variant_ref_sink(floating_value);
  if (strchr("ibs", *g_variant_get_type_string(value)) == nullptr) {
    return;
  }
  GString* const change = nv_config_event_change_new();
  nv_config_event_change_append(change, property, change_text(value).c_str());
  std::ignore = nv_config_event_send(ctrl.config_event, legacy_ioport_interface, legacy_port_0_path,
                                     legacy_ioport_interface, legacy_port_0_path, change_kind,
                                     change, nullptr);
  g_string_free(change, TRUE);
}

void send_port_counts_change(const LegacyCtrl& ctrl) {
  send_configuration_change(ctrl, "NbrOfInputs", g_variant_new("i", io_port_list_nbr_inputs()));
  send_configuration_change(ctrl, "NbrOfOutputs", g_variant_new("i", io_port_list_nbr_outputs()));
}

GVariant* iocontrol_conf_legacy_dbus_get_property(GDBusConnection* /*connection*/,
                                                  const gchar* /*sender*/, const gchar* path,
                                                  const gchar* interface_name,
                                                  const gchar* property, GError** error,
                                                  gpointer /*user_data*/) {
  return legacy_property_get(path, interface_name, property, error);
}

// The interfaces have no methods of their own; what reaches this are the writes of properties.
void iocontrol_conf_legacy_dbus_handle_method_call(GDBusConnection* connection,
                                                   const gchar* /*sender*/, const gchar* path,
                                                   const gchar* /*interface_name*/,
                                                   const gchar* method, GVariant* parameters,
                                                   GDBusMethodInvocation* invocation,
                                                   gpointer user_data) {
  g_return_if_fail(connection != nullptr);
  g_return_if_fail(invocation != nullptr);
  g_return_if_fail(user_data != nullptr);
  if (g_dbus_method_invocation_get_property_info(invocation) == nullptr
      || !g_str_equal(method, "Set")) {
    return;
  }
  const gchar* interface_name = nullptr;
  const gchar* property = nullptr;
  g_autoptr(GVariant) value = nullptr;
  g_variant_get(parameters, "(&s&sv)", &interface_name, &property, &value);
  const auto* const ctrl = static_cast<LegacyCtrl*>(user_data);
  GError* error = nullptr;
  if (legacy_property_set(
          path, interface_name,
          {.name = property, .value = value, .error = &error, .port_counts_changed = [ctrl] {
             send_port_counts_change(*ctrl);
           }})) {
    g_dbus_method_invocation_return_value(invocation, nullptr);
  } else {
    g_dbus_method_invocation_take_error(invocation, error);
  }
}

// Without an operation for writes GLib checks a write and then hands it over as a method call. That
// is how it should be: its own way does not look whether the object was unregistered while the
// write was waiting its turn, and then calls into memory that was freed.
const GDBusInterfaceVTable vtable{
    .method_call = iocontrol_conf_legacy_dbus_handle_method_call,
    .get_property = iocontrol_conf_legacy_dbus_get_property,
    .set_property = nullptr,
    .padding = {},
};

[[noreturn]] void registration_failed() {
  g_error("Unable to register objects on DBus");
}

void iocontrol_conf_legacy_dbus_register_object(LegacyCtrl& ctrl, gint port_number,
                                                InterfacePosition position) {
  constexpr int registration_line = 527;
  g_autoptr(GError) error = nullptr;
  const guint id = g_dbus_connection_register_object(
      ctrl.connection.get(), object_path(port_number).c_str(), ctrl.node_info->interfaces[position],
      &vtable, &ctrl, nullptr, &error);
  if (error != nullptr) {
    fprintf(stderr, "%s@%d: Error: \"%s\" when registering DBUS object for port %d\n", __func__,
            registration_line, error->message, port_number);
  }
  if (id == 0) {
    registration_failed();
  }
  ctrl.registrations.push_front(id);
}

void register_port(LegacyCtrl& ctrl, const IoPort* port) {
  iocontrol_conf_legacy_dbus_register_object(ctrl, port->number, IoPortInterface);
  if (io_port_has_input_side(port)) {
    iocontrol_conf_legacy_dbus_register_object(ctrl, port->number, InputInterface);
  }
  if (io_port_has_output_side(port)) {
    iocontrol_conf_legacy_dbus_register_object(ctrl, port->number, OutputInterface);
  }
}

// Numbers of the ports below `end`, and 0, in order.
std::set<gint> port_numbers_below(gint end) {
  std::set<gint> numbers{0};
  const IoPortListLock list_lock;
  for (const IoPort* port : io_port_list_get()) {
    if (port->number >= 0 && port->number < end) {
      numbers.insert(port->number);
    }
  }
  return numbers;
}

// Ports that stand for video channels are not shown here.
void register_ports(LegacyCtrl& ctrl) {
  const gint first_virtual = virtual_input_get_first_port_no();
  if (first_virtual < 1) {
    return;
  }
  for (const gint number : port_numbers_below(first_virtual)) {
    if (const IoPortRef port = io_port_list_get_port(number); port != nullptr) {
      register_port(ctrl, port.get());
    } else if (number == 0) {
      iocontrol_conf_legacy_dbus_register_object(ctrl, number, IoPortInterface);
    }
  }
}

void unreg_port_objects(const LegacyCtrl& ctrl, guint registration_id) {
  constexpr int unregistration_line = 660;
  if (!g_dbus_connection_unregister_object(ctrl.connection.get(), registration_id)) {
    fprintf(stderr, "%s@%d: Failed to unregister object\n", __func__, unregistration_line);
  }
}

GVariant* call_bus(GDBusConnection* connection, const char* method, GVariant* arguments,
                   GError** error) {
  return g_dbus_connection_call_sync(
      connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", method,
      arguments, G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, default_timeout, nullptr, error);
}

// Whoever holds the name already keeps it; we are queued and do not mind. The end of the bus is
// about to end the daemon, in order.
void request_name(const LegacyCtrl& ctrl) {
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) reply = call_bus(ctrl.connection.get(), "RequestName",
                                       g_variant_new("(su)", legacy_ioport_interface, 0U), &error);
  if (reply == nullptr && g_dbus_connection_is_closed(ctrl.connection.get())) {
    return;
  }
  if (reply == nullptr) {
    g_error("Could not request name: %s", error->message);
  }
}

// The name went with the connection, if that is gone.
void release_name(const LegacyCtrl& ctrl) {
  if (g_dbus_connection_is_closed(ctrl.connection.get())) {
    return;
  }
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) reply = call_bus(ctrl.connection.get(), "ReleaseName",
                                       g_variant_new("(s)", legacy_ioport_interface), &error);
  if (reply == nullptr) {
    g_warning("Could not release DBus name: %s", error->message);
  }
}

ObjectRef<GDBusConnection> connect_to_bus() {
  g_autoptr(GError) error = nullptr;
  GDBusConnection* const connection = bus_connection_shared(&error);
  if (connection == nullptr) {
    g_error("Failed to connect to system bus: %s", error->message);
  }
  return ObjectRef<GDBusConnection>(G_DBUS_CONNECTION(g_object_ref(connection)));
}

void declare_configuration_event(LegacyCtrl& ctrl) {
  ctrl.event_producer = nv_event_producer_new_full(producer_name, 0, nullptr);
  ctrl.config_event = nv_config_event_new(producer_name, ctrl.event_producer);
  std::ignore = nv_config_event_declare(ctrl.config_event, legacy_ioport_interface,
                                        legacy_port_0_path, legacy_ioport_interface, nullptr);
}

// What could not be undeclared may still be in use by the library and is left alive.
void undeclare_configuration_event(const LegacyCtrl& ctrl) {
  if (nv_config_event_undeclare(ctrl.config_event, legacy_ioport_interface, legacy_port_0_path,
                                legacy_ioport_interface)) {
    nv_config_event_free(ctrl.config_event);
    nv_event_producer_free(ctrl.event_producer);
  }
}

// A negative number makes no object path, and GLib has no error to give for that.
bool emit_properties_changed(GDBusConnection* connection, gint port_number,
                             const LegacySetting& setting, GError** error) {
  const std::string path = object_path(port_number);
  if (!g_variant_is_object_path(path.c_str())) {
    g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS, "port %d has no object",
                port_number);
    return false;
  }
  GVariantBuilder changed;
  g_variant_builder_init(&changed, G_VARIANT_TYPE("a{sv}"));
  g_variant_builder_add(&changed, "{sv}", setting.property,
                        g_variant_new_bytestring(setting.text != nullptr ? setting.text : ""));
  return g_dbus_connection_emit_signal(
             connection, nullptr, path.c_str(), "org.freedesktop.DBus.Properties",
             "PropertiesChanged",
             g_variant_new("(sa{sv}as)", setting.interface_name, &changed, nullptr), error)
         != FALSE;
}

void wexd_g_dbus_common_emit_property_changed_signal(GDBusConnection* connection,
                                                     const IoPort& port, Setting setting) {
  g_autoptr(GError) error = nullptr;
  if (!emit_properties_changed(connection, port.number, legacy_setting(port, setting), &error)) {
    g_log(G_LOG_DOMAIN, log_level_user, "%s%s Failed to emit configuration changed signal: %s",
          log_prefix, __func__, error->message);
  }
}

// Threads of sequences may announce a setting while this goes; they share the connection.
void listen(GDBusConnection* connection) {
  const std::shared_ptr<GDBusConnection> shared(G_DBUS_CONNECTION(g_object_ref(connection)),
                                                FreeWith<g_object_unref>());
  port_observer.setting_changed = [shared](const IoPort& port, Setting setting) {
    wexd_g_dbus_common_emit_property_changed_signal(shared.get(), port, setting);
  };
}

} // namespace

LegacyCtrlOwner iocontrol_conf_legacy_dbus_create() {
  LegacyCtrlOwner ctrl(new LegacyCtrl{.connection = connect_to_bus()});
  ctrl->node_info = g_dbus_node_info_new_for_xml(legacy_introspection_xml, nullptr);
  if (ctrl->node_info == nullptr) {
    registration_failed();
  }
  register_ports(*ctrl);
  declare_configuration_event(*ctrl);
  send_port_counts_change(*ctrl);
  listen(ctrl->connection.get());
  request_name(*ctrl);
  return ctrl;
}

void iocontrol_conf_legacy_dbus_destroy(LegacyCtrl* ctrl) {
  release_name(*ctrl);
  port_observer.setting_changed = nullptr;
  for (const guint id : ctrl->registrations) {
    unreg_port_objects(*ctrl, id);
  }
  undeclare_configuration_event(*ctrl);
  g_dbus_node_info_unref(ctrl->node_info);
  delete ctrl;
}
