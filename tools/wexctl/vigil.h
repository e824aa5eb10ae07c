// Waiting for something that the daemon tells.
#pragma once

#include "wexctl/bus.h"
#include "wexctl/duration.h"

#include <optional>
#include <utility>

namespace wexctl {

/// A handler of a signal, connected for as long as this lives.
class SignalHandler {
public:
  SignalHandler() = default;
  SignalHandler(gpointer object, const char* signal, GCallback handler, gpointer data)
      : object_(object), id_(g_signal_connect(object, signal, handler, data)) {}
  ~SignalHandler() {
    if (object_ != nullptr) {
      g_signal_handler_disconnect(object_, id_);
    }
  }
  SignalHandler(SignalHandler&& other) noexcept
      : object_(std::exchange(other.object_, nullptr)), id_(other.id_) {}
  SignalHandler& operator=(SignalHandler&& other) noexcept {
    std::swap(object_, other.object_);
    std::swap(id_, other.id_);
    return *this;
  }

private:
  gpointer object_ = nullptr;
  gulong id_ = 0;
};

/// A subscription to a signal that no proxy tells, for as long as this lives.
class Subscription {
public:
  /// To changes of the properties of the daemon as a whole, of which those that count ports change.
  Subscription(const Daemon& daemon, GDBusSignalCallback changed, gpointer data);
  ~Subscription() { g_dbus_connection_signal_unsubscribe(connection_, id_); }
  Subscription(const Subscription&) = delete;
  Subscription& operator=(const Subscription&) = delete;

private:
  GDBusConnection* connection_;
  guint id_;
};

/// That the time ran out.
CommandError timed_out();

/// A run of the main loop for whoever waits. Signals of the daemon that came since its proxies were
/// made are told in the run, so that nothing is missed between a look and the wait.
class Vigil {
public:
  /// Whether the daemon is there already, so that its going ends the wait.
  enum class Awaits { WordOfDaemon, Daemon };

  Vigil(const Daemon& daemon, Awaits awaits);
  Vigil(const Vigil&) = delete;
  Vigil& operator=(const Vigil&) = delete;

  /// Returns once finish() has been called. Throws the failure that it was given; that the time ran
  /// out, in the words of `late`, which a time of 0 does at once; or that nobody answers any more,
  /// because of `gone`.
  void wait(Timeout timeout, const CommandError& late, const char* gone);
  /// Without an end of time.
  void wait(const char* gone) { wait(std::nullopt, timed_out(), gone); }
  void finish() { stop(End::Done); }
  /// For callbacks of the loop, which must not throw.
  void fail(const CommandError& failure);

private:
  enum class End { Done, TimedOut, Gone };
  void stop(End end);
  End run(Timeout timeout);
  static void on_gone(GObject*, GParamSpec*, gpointer vigil);
  static void on_closed(GDBusConnection*, gboolean, GError*, gpointer vigil);
  static gboolean on_timeout(gpointer vigil);

  const Daemon& daemon_;
  const std::unique_ptr<GMainLoop, void (*)(GMainLoop*)> loop_{g_main_loop_new(nullptr, FALSE),
                                                               g_main_loop_unref};
  SignalHandler owner_;
  SignalHandler closed_;
  std::optional<End> end_;
  std::optional<CommandError> failure_;
};

} // namespace wexctl
