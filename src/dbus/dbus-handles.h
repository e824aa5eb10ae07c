// Owners and helpers that the services share.
#pragma once

#include <gio/gio.h>

#include "platform/object-handles.h"
#include "port/ioport-list.h"

#include <mutex>
#include <utility>

/// Whether the legacy configuration interface is served.
enum class LegacyInterface { Absent, Served };

/// An object that any thread may use while the main thread takes it away.
template <typename Object>
class SharedObject {
public:
  /// Takes over the reference of `object` (NULL: none) and drops the one held before.
  void reset(Object* object = nullptr) {
    ObjectRef<Object> next(object);
    const std::lock_guard guard(mutex_);
    // The one before is let go of after the lock.
    object_.swap(next);
  }

  /// Calls `use` with the object, if there is one.
  template <typename Use>
  void with(Use use) const {
    if (const auto held = object(); held != nullptr) {
      use(held.get());
    }
  }

private:
  ObjectRef<Object> object() const {
    const std::lock_guard guard(mutex_);
    if (object_ != nullptr) {
      g_object_ref(object_.get());
    }
    return ObjectRef<Object>(object_.get());
  }

  mutable std::mutex mutex_;
  ObjectRef<Object> object_;
};

/// One "handle-..." signal and the function that answers it.
struct MethodHandler {
  const char* signal;
  GCallback handler;
};

/// Connects every handler, with `service` as its data, and exports the skeleton; false when the bus
/// refuses the object.
template <typename Handlers>
[[nodiscard]] bool export_skeleton(gpointer skeleton, const Handlers& handlers, gpointer service,
                                   GDBusConnection* connection, const char* object_path) {
  for (const auto& entry : handlers) {
    g_signal_connect(skeleton, entry.signal, entry.handler, service);
  }
  g_autoptr(GError) error = nullptr;
  return g_dbus_interface_skeleton_export(G_DBUS_INTERFACE_SKELETON(skeleton), connection,
                                          object_path, &error);
}

/// The addressable port of the number that a call gave, if there is one. Callers count from 0 up;
/// the model's numbers may be negative, which those beyond 31 bits are.
[[nodiscard]] inline IoPortRef dbus_port_of_number(guint number) {
  return io_port_list_get_port(static_cast<gint>(number));
}

/// The handler of a method whose first argument is the number of a port. `Find` (invocation,
/// number) looks the port up, or answers that it will not do and returns none; `Answer` (object,
/// invocation, port, further arguments...) answers.
template <auto Find, auto Answer>
struct PortMethod;

template <auto Find, typename Skeleton, typename... Arguments,
          void (*Answer)(Skeleton*, GDBusMethodInvocation*, IoPort*, Arguments...)>
struct PortMethod<Find, Answer> {
  static gboolean handle(Skeleton* object, GDBusMethodInvocation* invocation, guint number,
                         Arguments... arguments, gpointer /*service*/) {
    if (const auto port = Find(invocation, number)) {
      Answer(object, invocation, port.get(), arguments...);
    }
    return TRUE;
  }
};

template <auto Find, auto Answer>
MethodHandler port_method(const char* signal) {
  return {signal, G_CALLBACK((PortMethod<Find, Answer>::handle))};
}
