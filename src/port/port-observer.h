// The seam through which the model announces what happened to whoever serves it to the outside.
//
// A service listens from its start to its stop; announcements that nobody listens to go nowhere.
// Listeners are called on the thread that caused the change, which may be an action-sequence
// thread, and may be called with a port's lock or the port-list mutex held: they must neither block
// on ports nor look ports up. A thread that is about to call one may do so after it was taken out,
// so what a listener needs must outlive it: it owns that, or shares it.
#pragma once

#include <glib.h>

#include "port/ioport.h"

#include <functional>
#include <memory>
#include <mutex>
#include <utility>

/// A state that a port took or showed, with what listeners need to judge it.
struct PortChange {
  gint number;
  bool is_virtual;
  bool hidden;
  bool input;
  Trigger trigger;
  bool state;
  /// Of the side in use.
  bool activelow;
};

/// The settings of a port that users see and services announce.
enum class Setting { InputName, OutputName, InputSense, OutputSense, Direction, Usage };

/// A kind of announcement, and who listens to it. Any thread.
template <typename... Parameters>
class Announcement {
public:
  using Listener = std::function<void(Parameters...)>;

  /// Replaces the listener; nullptr takes it out.
  Announcement& operator=(Listener listener) {
    auto next = listener ? std::make_shared<const Listener>(std::move(listener)) : nullptr;
    const std::lock_guard guard(mutex_);
    // The one before is freed after the lock is let go of.
    listener_.swap(next);
    return *this;
  }

  explicit operator bool() const { return listener() != nullptr; }

  template <typename... Arguments>
  void operator()(Arguments&&... arguments) const {
    if (const auto held = listener()) {
      (*held)(std::forward<Arguments>(arguments)...);
    }
  }

private:
  std::shared_ptr<const Listener> listener() const {
    const std::lock_guard guard(mutex_);
    return listener_;
  }

  mutable std::mutex mutex_;
  std::shared_ptr<const Listener> listener_;
};

struct PortObserver {
  /// A port's state was set or seen.
  Announcement<const PortChange&> port_changed;
  /// An action sequence ended, completed or cancelled, on the port of that number.
  Announcement<gint> sequence_done;
  /// Many changes were announced at once, on the calling thread, which holds no lock. The listener
  /// may wait a bounded moment until they have left.
  Announcement<> burst_announced;
  /// A setting has a new value, which the port holds already.
  Announcement<const IoPort&, Setting> setting_changed;
  /// A port in service has lost its hardware. Main thread.
  Announcement<> hardware_gone;
  /// Whether the device has an output-capable port; told after every change of the port list.
  Announcement<bool> outputs_wanted;
  /// A client had ports taken out of service or brought back. Main thread, no lock held.
  Announcement<> port_set_changed;
};

/// The process's one observer.
inline PortObserver port_observer;
