// A change is told after it has happened and looked at when it is told, so that a state counts that
// has gone again in the meantime; only what a supervised line is at has to be asked for.
#include "wexctl/wait.h"

#include "wexctl/supervised.h"
#include "wexctl/vigil.h"

#include <fmt/format.h>

namespace wexctl {

namespace {

// A port without supervision tells of its circuit by its sense: active while closed, or, active
// low, while open.
std::string circuit(const PortInfo& port) {
  return port.state != port.activelow ? "closed" : "open";
}

class PortWait {
public:
  PortWait(const Daemon& daemon, guint number, std::optional<std::string> state)
      : daemon_(daemon), number_(number), wanted_(std::move(state)) {}

  void run(Timeout timeout);

private:
  static void on_port_changed(IOControlState*, gint port, gboolean is_virtual, gboolean hidden,
                              gboolean input, gboolean virtual_trig, gboolean state,
                              gboolean activelow, gpointer self);
  static void on_ports_changed(GDBusConnection*, const gchar* sender, const gchar* path,
                               const gchar* interface, const gchar* signal, GVariant* arguments,
                               gpointer self);
  [[nodiscard]] bool look() const;
  [[nodiscard]] bool is_wanted(const PortInfo& port, const SupervisedWord& word) const;
  void judge(PortInfo told);
  [[nodiscard]] CommandError late() const;

  const Daemon& daemon_;
  guint number_;
  std::optional<std::string> wanted_;
  Vigil vigil_{daemon_, Vigil::Awaits::WordOfDaemon};
};

bool PortWait::is_wanted(const PortInfo& port, const SupervisedWord& word) const {
  if (!wanted_) {
    return false;
  }
  if (*wanted_ == "on" || *wanted_ == "off") {
    return port.state == (*wanted_ == "on");
  }
  if (!word && (*wanted_ == "short" || *wanted_ == "cut")) {
    throw CommandError(Status::Usage, fmt::format("port {} is not supervised, so it is never {}",
                                                  number_, *wanted_));
  }
  return *wanted_ == (word ? *word : circuit(port));
}

bool PortWait::look() const {
  const auto port = daemon_.port(number_);
  return is_wanted(port, supervised_word(daemon_, port.number, port.input));
}

// What is told of a supervised line is more and less than its state.
void PortWait::judge(PortInfo told) {
  const auto word = supervised_word(daemon_, told.number, told.input);
  if (!wanted_ || (word ? look() : is_wanted(told, word))) {
    vigil_.finish();
  }
}

void PortWait::on_port_changed(IOControlState* /*proxy*/, gint port, gboolean is_virtual,
                               gboolean /*hidden*/, gboolean input, gboolean virtual_trig,
                               gboolean state, gboolean activelow, gpointer self) {
  auto* wait = static_cast<PortWait*>(self);
  // Only a virtual port is in a state that was announced and not seen.
  const bool announced_only = virtual_trig != FALSE && is_virtual == FALSE;
  if (port != static_cast<gint>(wait->number_) || (announced_only && wait->wanted_)) {
    return;
  }
  try {
    wait->judge({.name = "",
                 .number = port,
                 .state = state != FALSE,
                 .input = input != FALSE,
                 .configurable = false,
                 .activelow = activelow != FALSE,
                 .properties = {}});
  } catch (const CommandError& error) {
    wait->vigil_.fail(error);
  }
}

// A port that comes back into service is not told of as changed. While it is away it is waited for.
void PortWait::on_ports_changed(GDBusConnection* /*connection*/, const gchar* /*sender*/,
                                const gchar* /*path*/, const gchar* /*interface*/,
                                const gchar* /*signal*/, GVariant* /*arguments*/, gpointer self) {
  auto* wait = static_cast<PortWait*>(self);
  try {
    if (wait->look()) {
      wait->vigil_.finish();
    }
  } catch (const CommandError& error) {
    if (error.status() != Status::Refused) {
      wait->vigil_.fail(error);
    }
  }
}

CommandError PortWait::late() const {
  if (!wanted_) {
    return CommandError(Status::TimedOut,
                        fmt::format("the time ran out before port {} changed", number_));
  }
  return CommandError(Status::TimedOut,
                      fmt::format("the time ran out before port {} was {}", number_, *wanted_));
}

void PortWait::run(Timeout timeout) {
  const Subscription ports(daemon_, on_ports_changed, this);
  const SignalHandler changed(daemon_.state(), "port-changed", G_CALLBACK(on_port_changed), this);
  if (!look()) {
    vigil_.wait(timeout, late(), "it went while it was waited for");
  }
}

// A daemon answers once it has taken all of its names, of which this one comes first.
class DaemonWait {
public:
  explicit DaemonWait(const Daemon& daemon) : daemon_(daemon) {}

  void run(Timeout timeout);

private:
  static void on_owner(GObject* proxy, GParamSpec* property, gpointer self);
  static void on_answer(GObject* proxy, GAsyncResult* result, gpointer self);
  void ask();

  const Daemon& daemon_;
  Vigil vigil_{daemon_, Vigil::Awaits::Daemon};
};

void DaemonWait::ask() {
  if (daemon_.present()) {
    iocontrol_state_call_get_nbr_ports(daemon_.state(), nullptr, on_answer, this);
  }
}

void DaemonWait::on_owner(GObject* /*proxy*/, GParamSpec* /*property*/, gpointer self) {
  static_cast<DaemonWait*>(self)->ask();
}

// One that went before it answered has its name looked for again.
void DaemonWait::on_answer(GObject* proxy, GAsyncResult* result, gpointer self) {
  if (iocontrol_state_call_get_nbr_ports_finish(IOCONTROL_STATE(proxy), nullptr, nullptr, result,
                                                nullptr)
      != FALSE) {
    static_cast<DaemonWait*>(self)->vigil_.finish();
  }
}

void DaemonWait::run(Timeout timeout) {
  if (timeout == 0U && daemon_.present()) {
    return;
  }
  const SignalHandler owner(daemon_.state(), "notify::g-name-owner", G_CALLBACK(on_owner), this);
  ask();
  vigil_.wait(timeout, CommandError(Status::TimedOut, "the time ran out before wexd answered"),
              "the system bus has ended");
}

} // namespace

void wait_for_port(const Daemon& daemon, const std::string& port,
                   const std::optional<std::string>& state, Timeout timeout) {
  PortWait(daemon, daemon.resolve(port), state).run(timeout);
}

void wait_for_daemon(const Daemon& daemon, Timeout timeout) {
  DaemonWait(daemon).run(timeout);
}

} // namespace wexctl
