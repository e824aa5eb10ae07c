// What the older interfaces have no place for, as they are kept exactly.
#include "dbus/manager.h"

#include "dbus/dbus-handles.h"
#include "dbus/iocontrol-manager-gen.h"
#include "platform/log.h"
#include "port/action-sequence.h"
#include "port/errors.h"
#include "port/ioport-list.h"

#include <array>

namespace {

constexpr const char* manager_path = "/com/norv/IOControl/Manager";

SharedSkeleton<IOControlManager1> manager_interface;

gboolean on_handle_stop_sequence(IOControlManager1* object, GDBusMethodInvocation* invocation,
                                 guint number, gpointer /*user_data*/) {
  const IoPortRef port(io_port_list_get_port(static_cast<gint>(number)));
  if (port == nullptr) {
    g_dbus_method_invocation_return_error_literal(invocation, io_control_error_quark(),
                                                  IO_CONTROL_ERROR_NO_PORT, "No such port.");
    return TRUE;
  }
  io_port_stop_action_sequence(port.get());
  iocontrol_manager1_complete_stop_sequence(object, invocation);
  return TRUE;
}

const std::array<MethodHandler, 1> handlers{{
    {"handle-stop-sequence", G_CALLBACK(on_handle_stop_sequence)},
}};

} // namespace

void manager_publish(GDBusConnection* connection) {
  IOControlManager1* const skeleton = iocontrol_manager1_skeleton_new();
  manager_interface.reset(skeleton);
  if (!export_skeleton(skeleton, handlers, connection, manager_path)) {
    g_warning("%sFailed to register IOControl manager dbus interface", log_prefix);
  }
}

void manager_unpublish() {
  manager_interface.reset();
}
