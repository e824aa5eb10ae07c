#include "peers/action-engine.h"

#include "platform/bus-call.h"
#include "platform/bus-proxy.h"
#include "platform/log.h"
#include "platform/mutex.h"
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

guint watch_id = 0;
/// None while the engine is absent.
GDBusProxy* proxy = nullptr;
bool wish = false;
/// Held while templates are added or removed.
Mutex registration_mutex;

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
std::optional<Present> list_templates() {
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

bool call_for_template(const ActionTemplate& entry, const char* method, const char* argument,
                       const char* failure) {
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) reply =
      bus_call(proxy, method, g_variant_new("(s)", argument), nullptr, &error);
  if (reply == nullptr) {
    g_warning("%sFailed to %s template %s: %s", log_prefix, failure, entry.id, error->message);
    return false;
  }
  return true;
}

bool add_template(const ActionTemplate& entry) {
  return call_for_template(entry, TEMPLATE_METHOD("AddFromFile"), entry.file, "add");
}

bool remove_template(const ActionTemplate& entry) {
  return call_for_template(entry, TEMPLATE_METHOD("Remove"), entry.id, "remove");
}

// Brings the engine in line with the wish.
void apply_wish() {
  const MutexLock guard(registration_mutex);
  if (proxy == nullptr) {
    return;
  }
  const auto present = list_templates();
  for (gsize i = 0; present && i < templates.size(); i++) {
    if ((*present)[i] == wish) {
      continue;
    }
    if (!(wish ? add_template(templates[i]) : remove_template(templates[i]))) {
      return;
    }
  }
}

void release_proxy() {
  const MutexLock guard(registration_mutex);
  g_clear_object(&proxy);
}

void on_name_appeared(GDBusConnection* /*connection*/, const gchar* /*name*/,
                      const gchar* /*owner*/, gpointer /*user_data*/) {
  release_proxy();
  {
    const MutexLock guard(registration_mutex);
    proxy = bus_proxy_new(service, nullptr);
  }
  apply_wish();
}

void on_name_vanished(GDBusConnection* /*connection*/, const gchar* /*name*/,
                      gpointer /*user_data*/) {
  release_proxy();
}

} // namespace

void actionengine_dbus_init() {
  port_observer.outputs_wanted = actionengine_dbus_update_action_registration;
  io_port_list_update_action_registration();
  watch_id = g_bus_watch_name(G_BUS_TYPE_SYSTEM, service.name, G_BUS_NAME_WATCHER_FLAGS_NONE,
                              on_name_appeared, on_name_vanished, nullptr, nullptr);
}

void actionengine_dbus_finalize() {
  port_observer.outputs_wanted = nullptr;
  g_bus_unwatch_name(std::exchange(watch_id, 0));
  release_proxy();
}

void actionengine_dbus_update_action_registration(gboolean wanted) {
  wish = wanted;
  apply_wish();
}
