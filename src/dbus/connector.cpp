// Connectors are ordinary ports that the description marks; this service counts and reads them.
#include "dbus/connector.h"

#include "dbus/dbus-handles.h"
#include "port/ioport-list.h"

#include <array>

namespace {

constexpr ExportedObject connector_object{.path = "/com/norv/WXD/Connector", .name = "Connector"};

struct ConnectorKind {
  const char* description;
  const char* property;
};

constexpr std::array kinds{
    ConnectorKind{.description = "video connector", .property = "video_connector"},
    ConnectorKind{.description = "audio connector", .property = "audio_connector"},
};

bool selected(IoPort* port, const char* description) {
  const bool all = g_str_equal(description, "*");
  for (const auto& kind : kinds) {
    if ((all || g_ascii_strcasecmp(description, kind.description) == 0)
        && io_port_get_property(port, kind.property)) {
      return true;
    }
  }
  return false;
}

// Calls `use` with every selected connector, in list order and under the list's lock.
template <typename Use>
void for_each_connector(const char* description, Use use) {
  const IoPortListLock list_lock;
  for (IoPort* entry : io_port_list_get()) {
    const IoPortRef port(io_port_ref(entry));
    if (selected(port.get(), description)) {
      use(port.get());
    }
  }
}

gboolean on_handle_get_num_connectors(WXDConnector* object, GDBusMethodInvocation* invocation,
                                      const gchar* description, gpointer /*user_data*/) {
  gint count = 0;
  for_each_connector(description, [&](IoPort*) { count++; });
  wxd_connector_complete_get_num_connectors(object, invocation, count);
  return TRUE;
}

gboolean on_handle_get_connector_states(WXDConnector* object, GDBusMethodInvocation* invocation,
                                        const gchar* description, gpointer /*user_data*/) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("ai"));
  for_each_connector(description, [&](IoPort* port) {
    g_variant_builder_add(&builder, "i", io_port_get_state(port) ? 1 : 0);
  });
  wxd_connector_complete_get_connector_states(object, invocation, g_variant_builder_end(&builder));
  return TRUE;
}

// EmitSNMPEvent has no handler on purpose: the skeleton answers that it is not implemented.
const std::array<MethodHandler, 2> handlers{{
    {"handle-get-num-connectors", G_CALLBACK(on_handle_get_num_connectors)},
    {"handle-get-connector-states", G_CALLBACK(on_handle_get_connector_states)},
}};

} // namespace

ObjectRef<WXDConnector> connector_publish(GDBusConnection* connection) {
  ObjectRef<WXDConnector> skeleton(wxd_connector_skeleton_new());
  export_skeleton(skeleton.get(), handlers, nullptr, connection, connector_object);
  return skeleton;
}
