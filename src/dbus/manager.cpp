// What the older interfaces have no place for, as they are kept exactly.
#include "dbus/manager.h"

#include "dbus/connector.h"
#include "dbus/legacy-names.h"
#include "param/param.h"
#include "platform/boot-time.h"
#include "platform/callbacks.h"
#include "platform/hung-services.h"
#include "platform/service-manager.h"
#include "port/action-sequence.h"
#include "port/ioport-census.h"
#include "port/ioport-list.h"
#include "port/port-observer.h"

#include <array>
#include <vector>

namespace {

constexpr ExportedObject manager_object{.path = "/com/norv/IOControl/Manager",
                                        .name = "IOControl manager"};

const gint64 started_at_us = boot_time_us();

/// The names of the services that are always there.
constexpr std::array own_names{"com.norv.IOControl.State", connector_name,
                               "com.norv.IOSupervised.Supervised"};

/// Whom backends and peers call.
constexpr std::array called_services{"com.norv.IOBoxMonitor",
                                     "com.norv.ZWave.IO",
                                     "com.norv.Streamer",
                                     "com.norv.PTZ.Coordinator",
                                     "com.norv.Event.ActionEngine.User",
                                     "com.norv.PolicyKitSystem"};

void stop_sequence(IOControlManager1* object, GDBusMethodInvocation* invocation, IoPort* port) {
  io_port_stop_action_sequence(port);
  iocontrol_manager1_complete_stop_sequence(object, invocation);
}

gboolean on_handle_get_running_sequences(IOControlManager1* object,
                                         GDBusMethodInvocation* invocation,
                                         gpointer /*user_data*/) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("au"));
  for (const gint number : action_sequences_running()) {
    g_variant_builder_add(&builder, "u", number);
  }
  iocontrol_manager1_complete_get_running_sequences(object, invocation,
                                                    g_variant_builder_end(&builder));
  return TRUE;
}

// The bus knows who is there; it answers without holding anybody up.
void on_names_listed(GDBusMethodInvocation* invocation, GObject* connection, GAsyncResult* result) {
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) reply =
      g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, &error);
  if (reply == nullptr) {
    g_dbus_method_invocation_return_gerror(invocation, error);
    return;
  }
  g_autofree const gchar** names = nullptr;
  g_variant_get(reply, "(^a&s)", &names);
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("a(sbb)"));
  for (const char* service : called_services) {
    g_variant_builder_add(&builder, "(sbb)", service, g_strv_contains(names, service),
                          hung_service_is_left_alone(service));
  }
  g_dbus_method_invocation_return_value(invocation, g_variant_new("(a(sbb))", &builder));
}

gboolean on_handle_get_services(IOControlManager1* /*object*/, GDBusMethodInvocation* invocation,
                                gpointer /*user_data*/) {
  g_dbus_connection_call(g_dbus_method_invocation_get_connection(invocation),
                         "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                         "ListNames", nullptr, G_VARIANT_TYPE("(as)"), G_DBUS_CALL_FLAGS_NONE, -1,
                         nullptr, callback<on_names_listed>, invocation);
  return TRUE;
}

gboolean on_handle_get_last_failed_save(IOControlManager1* object,
                                        GDBusMethodInvocation* invocation, gpointer /*user_data*/) {
  const auto failed = param_last_failed_save();
  const FailedSave shown = failed.value_or(FailedSave{});
  iocontrol_manager1_complete_get_last_failed_save(object, invocation, failed.has_value(),
                                                   static_cast<guint64>(shown.at_us),
                                                   shown.reason.c_str(), shown.made_good);
  return TRUE;
}

GVariant* missing_ports(const PortCensus& census) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("a(sibs)"));
  for (const auto& port : census.missing) {
    g_autofree gchar* reason = g_utf8_make_valid(port.reason.c_str(), -1);
    g_variant_builder_add(&builder, "(sibs)", port.name.c_str(), port.number, port.optional,
                          reason);
  }
  return g_variant_builder_end(&builder);
}

void set_what_stays(IOControlManager1* skeleton, LegacyInterface legacy) {
  iocontrol_manager1_set_version(skeleton, WEXD_VERSION);
  iocontrol_manager1_set_started_at(skeleton, static_cast<guint64>(started_at_us));
  std::vector<const char*> names(own_names.begin(), own_names.end());
  if (legacy == LegacyInterface::Served) {
    names.push_back(legacy_ioport_interface);
  }
  names.push_back(nullptr);
  iocontrol_manager1_set_bus_names(skeleton, names.data());
}

const std::array<MethodHandler, 4> handlers{{
    {"handle-get-running-sequences", G_CALLBACK(on_handle_get_running_sequences)},
    {"handle-get-services", G_CALLBACK(on_handle_get_services)},
    {"handle-get-last-failed-save", G_CALLBACK(on_handle_get_last_failed_save)},
    port_method<any_port<IO_CONTROL_ERROR_NO_PORT>, stop_sequence>("handle-stop-sequence"),
}};

} // namespace

Manager::Manager(GDBusConnection* connection, LegacyInterface legacy)
    : skeleton_(iocontrol_manager1_skeleton_new()) {
  set_what_stays(skeleton_.get(), legacy);
  tell_ports();
  port_observer.hardware_gone = [this] { tell_ports_soon(); };
  export_skeleton(skeleton_.get(), handlers, nullptr, connection, manager_object);
}

Manager::~Manager() {
  port_observer.hardware_gone = nullptr;
}

void Manager::tell_ports() {
  const auto census = io_port_list_census();
  iocontrol_manager1_set_ports(skeleton_.get(), census.described);
  iocontrol_manager1_set_ports_in_service(skeleton_.get(), census.in_service);
  iocontrol_manager1_set_missing_ports(skeleton_.get(), missing_ports(census));
  service_manager_tell(port_census_text(census));
}

gboolean Manager::on_telling() {
  telling_.forget();
  tell_ports();
  return G_SOURCE_REMOVE;
}

// Told by a backend, which may hold locks that a look at the list needs.
void Manager::tell_ports_soon() {
  if (!telling_) {
    telling_.reset(g_idle_add(callback<&Manager::on_telling>, this));
  }
}
