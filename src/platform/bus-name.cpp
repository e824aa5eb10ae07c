#include "platform/bus-name.h"

#include "platform/bus-connection.h"
#include "platform/callbacks.h"

#include <utility>

BusName::BusName(const char* name, std::function<void(GDBusConnection*)> publish)
    : name_(name), publish_(std::move(publish)),
      waiting_(g_idle_add_full(G_PRIORITY_DEFAULT, callback<&BusName::on_loop>, this, nullptr)) {}

gboolean BusName::on_loop() {
  waiting_.forget();
  if (GDBusConnection* const connection = bus_connection_shared(nullptr)) {
    publish_(connection);
    owned_.reset(g_bus_own_name_on_connection(connection, name_, G_BUS_NAME_OWNER_FLAGS_NONE,
                                              nullptr, nullptr, nullptr, nullptr));
  }
  return G_SOURCE_REMOVE;
}
