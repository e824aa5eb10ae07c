#include "dbus/dbus-handles.h"

#include "platform/log.h"

void register_errors(GQuark domain, std::span<const GDBusErrorEntry> entries) {
  for (const auto& entry : entries) {
    g_dbus_error_register_error(domain, entry.error_code, entry.dbus_error_name);
  }
}

void answer_error(GDBusMethodInvocation* invocation, IoControlError code, const char* message) {
  g_dbus_method_invocation_return_error_literal(invocation, io_control_error_quark(), code,
                                                message);
}

void answer_error(GDBusMethodInvocation* invocation, IoSupervisedError code, const char* message) {
  g_dbus_method_invocation_return_error_literal(invocation, io_supervised_error_quark(), code,
                                                message);
}

void export_skeleton(gpointer skeleton, std::span<const MethodHandler> handlers, gpointer service,
                     GDBusConnection* connection, const ExportedObject& object) {
  for (const auto& entry : handlers) {
    g_signal_connect(skeleton, entry.signal, entry.handler, service);
  }
  if (!g_dbus_interface_skeleton_export(G_DBUS_INTERFACE_SKELETON(skeleton), connection,
                                        object.path, nullptr)) {
    g_warning("%sFailed to register %s dbus interface", log_prefix, object.name);
  }
}
