// Owners and helpers that the services share.
#pragma once

#include <gio/gio.h>

#include "platform/object-handles.h"
#include "port/errors.h"
#include "port/ioport-list.h"

#include <mutex>
#include <span>

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

/// Where an object is on the bus, and what messages call it.
struct ExportedObject {
  const char* path;
  const char* name;
};

/// Connects every handler, with `service` as its data, and exports the skeleton; a bus that refuses
/// the object is warned of.
void export_skeleton(gpointer skeleton, std::span<const MethodHandler> handlers, gpointer service,
                     GDBusConnection* connection, const ExportedObject& object);

/// Tells the bus library by which names clients know the codes of an error domain.
void register_errors(GQuark domain, std::span<const GDBusErrorEntry> entries);

/// Answers a call with an error of the domain that the code belongs to.
void answer_error(GDBusMethodInvocation* invocation, IoControlError code, const char* message);
void answer_error(GDBusMethodInvocation* invocation, IoSupervisedError code, const char* message);

/// The addressable port of the number that a call gave; otherwise the call is answered with the
/// error `no_port` and the result is empty. Callers count from 0 up; the model's numbers may be
/// negative, which those beyond 31 bits are.
template <auto no_port>
[[nodiscard]] IoPortRef any_port(GDBusMethodInvocation* invocation, guint number) {
  auto port = io_port_list_get_port(static_cast<gint>(number));
  if (port == nullptr) {
    answer_error(invocation, no_port, "No such port.");
  }
  return port;
}

/// The same for a port that must be published here.
template <auto no_port>
[[nodiscard]] IoPortRef published_port(GDBusMethodInvocation* invocation, guint number) {
  auto port = any_port<no_port>(invocation, number);
  if (port != nullptr && !io_port_get_property(port.get(), "ioport")) {
    answer_error(invocation, no_port, "No such port.");
    port.reset();
  }
  return port;
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
