// Owners of GObjects and of what is connected to them.
#pragma once

#include "platform/handles.h"

#include <gio/gio.h>

#include <memory>
#include <utility>

/// Holds one reference of an object.
template <typename Object>
using ObjectRef = std::unique_ptr<Object, FreeWith<g_object_unref>>;

/// A callback on a signal of an object, which it keeps alive; disconnects it when it goes.
class SignalHandler {
public:
  SignalHandler() = default;
  SignalHandler(GDBusProxy* instance, gulong id)
      : instance_(G_DBUS_PROXY(g_object_ref(instance))), id_(id) {}
  ~SignalHandler() { reset(); }
  SignalHandler(SignalHandler&& other) noexcept
      : instance_(std::move(other.instance_)), id_(std::exchange(other.id_, 0)) {}
  SignalHandler& operator=(SignalHandler&& other) noexcept {
    reset();
    instance_ = std::move(other.instance_);
    id_ = std::exchange(other.id_, 0);
    return *this;
  }
  SignalHandler(const SignalHandler&) = delete;
  SignalHandler& operator=(const SignalHandler&) = delete;

  explicit operator bool() const { return id_ != 0; }

  void reset() {
    if (const gulong id = std::exchange(id_, 0); id != 0) {
      g_signal_handler_disconnect(instance_.get(), id);
    }
    instance_.reset();
  }

private:
  ObjectRef<GDBusProxy> instance_;
  gulong id_ = 0;
};

/// Something that is under way and may be given up; it is given up when this goes.
class UnderWay {
public:
  UnderWay() = default;
  ~UnderWay() { give_up(); }
  UnderWay(const UnderWay&) = delete;
  UnderWay& operator=(const UnderWay&) = delete;

  /// Gives up what is under way; the returned cancellable, which this owns, is the next one's.
  GCancellable* begin() {
    give_up();
    cancellable_.reset(g_cancellable_new());
    return cancellable_.get();
  }

  /// The present one's; NULL when nothing is under way.
  [[nodiscard]] GCancellable* cancellable() const { return cancellable_.get(); }

  void give_up() {
    g_cancellable_cancel(cancellable_.get());
    cancellable_.reset();
  }

private:
  ObjectRef<GCancellable> cancellable_;
};
