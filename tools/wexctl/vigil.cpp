#include "wexctl/vigil.h"

namespace wexctl {

Subscription::Subscription(const Daemon& daemon, GDBusSignalCallback changed, gpointer data)
    : connection_(daemon.connection()) {
  auto* const proxy = G_DBUS_PROXY(daemon.manager());
  id_ = g_dbus_connection_signal_subscribe(connection_, g_dbus_proxy_get_name(proxy),
                                           "org.freedesktop.DBus.Properties", "PropertiesChanged",
                                           g_dbus_proxy_get_object_path(proxy), nullptr,
                                           G_DBUS_SIGNAL_FLAGS_NONE, changed, data, nullptr);
}

// Only the daemon that was asked can tell: another owner of its name, or none, knows nothing of it.
// An end of the bus takes the name from nobody, so that is heeded, too.
Vigil::Vigil(const Daemon& daemon, Awaits awaits)
    : daemon_(daemon), closed_(daemon.connection(), "closed", G_CALLBACK(on_closed), this) {
  if (awaits == Awaits::WordOfDaemon) {
    owner_ = SignalHandler(daemon.state(), "notify::g-name-owner", G_CALLBACK(on_gone), this);
  }
}

// The first end counts: what comes after it belongs to nobody's wait.
void Vigil::stop(End end) {
  if (!end_) {
    end_ = end;
  }
  g_main_loop_quit(loop_.get());
}

void Vigil::fail(const CommandError& failure) {
  failure_ = failure;
  finish();
}

void Vigil::on_gone(GObject* /*proxy*/, GParamSpec* /*property*/, gpointer vigil) {
  static_cast<Vigil*>(vigil)->stop(End::Gone);
}

void Vigil::on_closed(GDBusConnection* /*connection*/, gboolean /*by_peer*/, GError* /*error*/,
                      gpointer vigil) {
  static_cast<Vigil*>(vigil)->stop(End::Gone);
}

gboolean Vigil::on_timeout(gpointer vigil) {
  static_cast<Vigil*>(vigil)->stop(End::TimedOut);
  return G_SOURCE_CONTINUE;
}

Vigil::End Vigil::run(Timeout timeout) {
  if (g_dbus_connection_is_closed(daemon_.connection()) != FALSE) {
    return End::Gone;
  }
  if (timeout == 0U) {
    return End::TimedOut;
  }
  const guint timer = timeout ? g_timeout_add(*timeout, on_timeout, this) : 0;
  g_main_loop_run(loop_.get());
  if (timer != 0) {
    g_source_remove(timer);
  }
  return end_.value_or(End::Gone);
}

void Vigil::wait(Timeout timeout, const CommandError& late, const char* gone) {
  const End end = end_ ? *end_ : run(timeout);
  if (failure_) {
    throw CommandError(*failure_);
  }
  switch (end) {
  case End::Done:
    break;
  case End::TimedOut:
    throw CommandError(late);
  case End::Gone:
    throw unreachable(gone);
  }
}

CommandError timed_out() {
  return CommandError(Status::TimedOut, "the time ran out");
}

} // namespace wexctl
