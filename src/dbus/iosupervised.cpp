#include "dbus/iosupervised.h"

#include "dbus/dbus-handles.h"
#include "dbus/iosupervised-supervised-gen.h"
#include "param/param.h"
#include "platform/bus-name.h"
#include "port/ioport-list.h"

#include <array>
#include <optional>

/// What is on the bus for as long as the service is.
struct IoSupervised {
  std::optional<BusName> name;
  ObjectRef<IOSupervisedSupervised> skeleton;
};

namespace {

constexpr const char* supervised_name = "com.norv.IOSupervised.Supervised";
constexpr ExportedObject supervised_object{.path = "/com/norv/IOSupervised/Supervised",
                                           .name = "supervised"};

// The later names lack the ".Error" that the first two have; clients know them so.
constexpr std::array error_entries{
    GDBusErrorEntry{IO_SUPERVISED_ERROR_GENERIC, "com.norv.IOSupervised.Error.Generic"},
    GDBusErrorEntry{IO_SUPERVISED_ERROR_NO_PORT, "com.norv.IOSupervised.Error.No_port"},
    GDBusErrorEntry{IO_SUPERVISED_ERROR_NOT_SUPERVISABLE, "com.norv.IOSupervised.Not_supervisable"},
    GDBusErrorEntry{IO_SUPERVISED_ERROR_NOT_SUPERVISED, "com.norv.IOSupervised.Not_supervised"},
    GDBusErrorEntry{IO_SUPERVISED_ERROR_BAD_SUPERVISED_RANGE,
                    "com.norv.IOSupervised.Bad_supervised_range"},
};

constexpr const char* not_supervisable = "Port is not supervisable.";

// Answers with the model's own error or, where it gave none, with `message`.
void answer_model_error(GDBusMethodInvocation* invocation, const GError* error,
                        const char* message) {
  if (error != nullptr) {
    g_dbus_method_invocation_return_gerror(invocation, error);
  } else {
    answer_error(invocation, IO_SUPERVISED_ERROR_GENERIC, message);
  }
}

IoPortRef supervisable(GDBusMethodInvocation* invocation, guint number, const char* message) {
  auto port = any_port<IO_SUPERVISED_ERROR_NO_PORT>(invocation, number);
  if (port != nullptr && !io_port_is_supervisable(port.get())) {
    answer_error(invocation, IO_SUPERVISED_ERROR_NOT_SUPERVISABLE, message);
    return nullptr;
  }
  return port;
}

// The port of that number if it can be supervised; otherwise the call is answered.
IoPortRef supervisable_port(GDBusMethodInvocation* invocation, guint number) {
  return supervisable(invocation, number, not_supervisable);
}

// The same for a method whose refusal has always lacked its full stop.
IoPortRef port_with_states(GDBusMethodInvocation* invocation, guint number) {
  return supervisable(invocation, number, "Port is not supervisable");
}

gboolean on_handle_get_number_of_ports(IOSupervisedSupervised* object,
                                       GDBusMethodInvocation* invocation, gpointer /*user_data*/) {
  iosupervised_supervised_complete_get_number_of_ports(
      object, invocation, io_port_list_nbr_inputs(), io_port_list_nbr_outputs());
  return TRUE;
}

void is_supervisable(IOSupervisedSupervised* object, GDBusMethodInvocation* invocation,
                     IoPort* port) {
  iosupervised_supervised_complete_is_supervisable(object, invocation,
                                                   io_port_is_supervisable(port), FALSE);
}

void get_supervised(IOSupervisedSupervised* object, GDBusMethodInvocation* invocation,
                    IoPort* port) {
  iosupervised_supervised_complete_get_supervised(object, invocation, port->supervised);
}

// The new mode changes which declarations apply.
void set_supervised(IOSupervisedSupervised* object, GDBusMethodInvocation* invocation, IoPort* port,
                    gboolean supervised) {
  const bool wanted = supervised != FALSE;
  if (port->supervised != wanted) {
    if (!io_port_set_supervised(port, wanted)) {
      answer_error(invocation, IO_SUPERVISED_ERROR_NOT_SUPERVISABLE, not_supervisable);
      return;
    }
    param_save_for_port(port, param_file);
    io_port_redeclare_events(port);
  }
  iosupervised_supervised_complete_set_supervised(object, invocation);
}

void set_supervised_ranges(IOSupervisedSupervised* object, GDBusMethodInvocation* invocation,
                           IoPort* port, const gchar* state, guint lower, guint upper) {
  g_autoptr(GError) error = nullptr;
  if (!io_port_add_supervised_range(port, state, static_cast<gint>(lower), static_cast<gint>(upper),
                                    &error)) {
    answer_model_error(invocation, error, "Could not set ranges.");
    return;
  }
  param_save_for_port(port, param_file);
  iosupervised_supervised_complete_set_supervised_ranges(object, invocation);
}

void get_supervised_ranges(IOSupervisedSupervised* object, GDBusMethodInvocation* invocation,
                           IoPort* port) {
  if (const SupervisedRanges* const ranges = io_port_get_supervised_ranges(port)) {
    iosupervised_supervised_complete_get_supervised_ranges(object, invocation,
                                                           supervised_ranges2gvariant(*ranges));
  } else {
    answer_error(invocation, IO_SUPERVISED_ERROR_GENERIC, "Could not get ranges.");
  }
}

void get_supervised_readout(IOSupervisedSupervised* object, GDBusMethodInvocation* invocation,
                            IoPort* port) {
  g_autoptr(GError) error = nullptr;
  if (const auto readout = io_port_get_supervised_readout(port, &error)) {
    iosupervised_supervised_complete_get_supervised_readout(
        object, invocation, supervised_range_state2string(readout->state), readout->level);
  } else {
    answer_model_error(invocation, error, "Could not get supervised readout.");
  }
}

void get_supervised_states(IOSupervisedSupervised* object, GDBusMethodInvocation* invocation,
                           IoPort* port) {
  const auto names = io_port_get_supported_states(port);
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("a(s)"));
  for (const char* name : names) {
    g_variant_builder_add(&builder, "(s)", name);
  }
  iosupervised_supervised_complete_get_supervised_states(
      object, invocation, static_cast<guint>(names.size()), g_variant_builder_end(&builder));
}

gboolean on_handle_get_supervised_port_numbers(IOSupervisedSupervised* object,
                                               GDBusMethodInvocation* invocation,
                                               gpointer /*user_data*/) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("au"));
  for (const gint number : io_port_list_get_supervised_port_numbers()) {
    g_variant_builder_add(&builder, "u", number);
  }
  iosupervised_supervised_complete_get_supervised_port_numbers(object, invocation,
                                                               g_variant_builder_end(&builder));
  return TRUE;
}

constexpr auto published = published_port<IO_SUPERVISED_ERROR_NO_PORT>;

const std::array<MethodHandler, 9> handlers{{
    {"handle-get-number-of-ports", G_CALLBACK(on_handle_get_number_of_ports)},
    port_method<published, is_supervisable>("handle-is-supervisable"),
    port_method<published, get_supervised>("handle-get-supervised"),
    port_method<published, set_supervised>("handle-set-supervised"),
    port_method<supervisable_port, set_supervised_ranges>("handle-set-supervised-ranges"),
    port_method<supervisable_port, get_supervised_ranges>("handle-get-supervised-ranges"),
    port_method<supervisable_port, get_supervised_readout>("handle-get-supervised-readout"),
    port_method<port_with_states, get_supervised_states>("handle-get-supervised-states"),
    {"handle-get-supervised-port-numbers", G_CALLBACK(on_handle_get_supervised_port_numbers)},
}};

void iosupervised_on_bus_acquired(IoSupervised* service, GDBusConnection* connection) {
  IOSupervisedSupervised* const skeleton = iosupervised_supervised_skeleton_new();
  service->skeleton.reset(skeleton);
  export_skeleton(skeleton, handlers, nullptr, connection, supervised_object);
}

} // namespace

IoSupervisedOwner iosupervised_init_dbus() {
  register_errors(io_supervised_error_quark(), error_entries);
  IoSupervisedOwner service(new IoSupervised);
  service->name.emplace(supervised_name, [to = service.get()](GDBusConnection* connection) {
    iosupervised_on_bus_acquired(to, connection);
  });
  return service;
}

void iosupervised_unreg_dbus(IoSupervised* service) {
  delete service;
}
