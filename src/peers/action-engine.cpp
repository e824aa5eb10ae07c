#include "peers/action-engine.h"

#include "platform/bus-call.h"
#include "platform/bus-connection.h"
#include "platform/bus-proxy.h"
#include "platform/callbacks.h"
#include "platform/log.h"
#include "port/ioport-list.h"
#include "port/port-observer.h"

#include <array>
#include <optional>

namespace {

constexpr BusService service{.name = "com.norv.Event.ActionEngine.User",
                             .path = "/com/norv/Event/ActionEngine",
                             .interface_name = "com.norv.Event.ActionEngine.User"};

#define TEMPLATE_METHOD(name) "com.norv.Event.ActionEngine.ActionTemplate." name

struct ActionTemplate {
  const char* id;
  const char* file;
};

// In the order in which they are added and removed; a failure stops at the one it met.
constexpr std::array templates{
    ActionTemplate{.id = "com.norv.action.fixed.io.toggle",
                   .file = "/etc/wexd/actions/com.norv.action.fixed.io.toggle.xml"},
    ActionTemplate{.id = "com.norv.action.unlimited.io.toggle",
                   .file = "/etc/wexd/actions/com.norv.action.unlimited.io.toggle.xml"},
};
using Present = std::array<bool, templates.size()>;

void note_present(GVariant* list, Present& present) {
  GVariantIter iter;
  g_variant_iter_init(&iter, list);
  const gchar* id = nullptr;
  while (g_variant_iter_next(&iter, "(&sss@a{ss})", &id, nullptr, nullptr, nullptr)) {
    for (gsize i = 0; i < templates.size(); i++) {
      present[i] = present[i] || g_str_equal(id, templates[i].id);
    }
  }
}

// Which of the templates the engine has; nothing, after a warning, when it does not tell.
std::optional<Present> list_templates(GDBusProxy* proxy) {
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) reply = bus_call(proxy, TEMPLATE_METHOD("List"), nullptr, nullptr, &error);
  g_autoptr(GVariant) list = reply != nullptr && g_variant_n_children(reply) > 0
                                 ? g_variant_get_child_value(reply, 0)
                                 : nullptr;
  if (list == nullptr || !g_variant_is_of_type(list, G_VARIANT_TYPE("a(sssa{ss})"))) {
    g_warning("%sCould not retrieve the template list: %s", log_prefix,
              error != nullptr ? error->message : "unexpected reply");
    return std::nullopt;
  }
  Present present{};
  note_present(list, present);
  return present;
}

bool call_for_template(GDBusProxy* proxy, const ActionTemplate& entry, const char* method,
                       const char* argument, const char* failure) {
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) reply =
      bus_call(proxy, method, g_variant_new("(s)", argument), nullptr, &error);
  if (reply == nullptr) {
    g_warning("%sFailed to %s template %s: %s", log_prefix, failure, entry.id, error->message);
    return false;
  }
  return true;
}

bool add_template(GDBusProxy* proxy, const ActionTemplate& entry) {
  return call_for_template(proxy, entry, TEMPLATE_METHOD("AddFromFile"), entry.file, "add");
}

bool remove_template(GDBusProxy* proxy, const ActionTemplate& entry) {
  return call_for_template(proxy, entry, TEMPLATE_METHOD("Remove"), entry.id, "remove");
}

} // namespace

ActionengineDbus::ActionengineDbus() {
  port_observer.outputs_wanted = [this](bool wanted) {
    wanted_ = wanted;
    apply_wish();
  };
  io_port_list_update_action_registration();
  starting_.reset(
      g_idle_add_full(G_PRIORITY_DEFAULT, callback<&ActionengineDbus::on_loop>, this, nullptr));
}

ActionengineDbus::~ActionengineDbus() {
  port_observer.outputs_wanted = nullptr;
}

// A look-up of the shared connection by GLib would take a thread, as for a BusName.
gboolean ActionengineDbus::on_loop() {
  starting_.forget();
  if (GDBusConnection* const connection = bus_connection_shared(nullptr)) {
    watch_.reset(g_bus_watch_name_on_connection(
        connection, service.name, G_BUS_NAME_WATCHER_FLAGS_NONE,
        callback<&ActionengineDbus::on_name_appeared>,
        callback<&ActionengineDbus::on_name_vanished>, this, nullptr));
  }
  return G_SOURCE_REMOVE;
}

void ActionengineDbus::on_name_appeared() {
  proxy_.reset();
  proxy_.reset(bus_proxy_new(service, nullptr));
  apply_wish();
}

void ActionengineDbus::on_name_vanished() {
  proxy_.reset();
}

void ActionengineDbus::apply_wish() {
  if (proxy_ == nullptr) {
    return;
  }
  GDBusProxy* const proxy = proxy_.get();
  const auto present = list_templates(proxy);
  for (gsize i = 0; present && i < templates.size(); i++) {
    if ((*present)[i] == wanted_) {
      continue;
    }
    if (!(wanted_ ? add_template(proxy, templates[i]) : remove_template(proxy, templates[i]))) {
      return;
    }
  }
}
