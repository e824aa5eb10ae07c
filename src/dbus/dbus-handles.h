// Owners and helpers that the services share.
#pragma once

#include <gio/gio.h>

#include "port/ioport.h"

#include <mutex>
#include <utility>

/// A skeleton that signals may be emitted on from any thread while the main thread takes it away.
template <typename Skeleton>
class SharedSkeleton {
public:
  /// Takes over the reference of `skeleton` (NULL: none) and drops the one held before.
  void reset(Skeleton* skeleton = nullptr) {
    Skeleton* previous = nullptr;
    {
      const std::lock_guard guard(mutex_);
      previous = std::exchange(skeleton_, skeleton);
    }
    g_clear_object(&previous);
  }

  /// Calls `use` with the skeleton, if there is one.
  template <typename Use>
  void with(Use use) {
    Skeleton* held = nullptr;
    {
      const std::lock_guard guard(mutex_);
      if (skeleton_ != nullptr) {
        held = static_cast<Skeleton*>(g_object_ref(skeleton_));
      }
    }
    if (held != nullptr) {
      use(held);
      g_object_unref(held);
    }
  }

private:
  std::mutex mutex_;
  Skeleton* skeleton_ = nullptr;
};

/// One "handle-..." signal and the function that answers it.
struct MethodHandler {
  const char* signal;
  GCallback handler;
};

/// Connects every handler and exports the skeleton; false when the bus refuses the object.
template <typename Handlers>
[[nodiscard]] bool export_skeleton(gpointer skeleton, const Handlers& handlers,
                                   GDBusConnection* connection, const char* object_path) {
  for (const auto& entry : handlers) {
    g_signal_connect(skeleton, entry.signal, entry.handler, nullptr);
  }
  g_autoptr(GError) error = nullptr;
  return g_dbus_interface_skeleton_export(G_DBUS_INTERFACE_SKELETON(skeleton), connection,
                                          object_path, &error);
}
