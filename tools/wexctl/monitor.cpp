#include "wexctl/monitor.h"

#include "wexctl/changes.h"
#include "wexctl/output.h"
#include "wexctl/vigil.h"

#include <glib-unix.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <optional>
#include <set>

namespace wexctl {

namespace {

class Monitor : public ChangeListener {
public:
  Monitor(const Daemon& daemon, const MonitorOptions& options)
      : daemon_(daemon), options_(options) {}

  void run();

private:
  [[nodiscard]] bool wants(int port) const override {
    return options_.ports.empty() || chosen_.contains(port);
  }
  void on_port(int port, const MonitorLine& line) override;
  void on_daemon_there(const MonitorLine& line) override;
  void on_daemon_absent(const MonitorLine& line) override { tell(line); }

  static void on_bus_closed(GDBusConnection*, gboolean, GError*, gpointer self);
  static gboolean on_reader_left(gint, GIOCondition, gpointer self);
  static gboolean on_idle_timeout(gpointer self);
  static gboolean on_timeout(gpointer self);
  static gboolean on_interrupt(gpointer self);

  void watch_loop();
  void choose_ports();
  void tell(const MonitorLine& line);
  void restart_idle_timer();
  void end() { g_main_loop_quit(loop_.get()); }
  void fail(const CommandError& failure);

  const Daemon& daemon_;
  const MonitorOptions& options_;
  const std::unique_ptr<GMainLoop, void (*)(GMainLoop*)> loop_{g_main_loop_new(nullptr, FALSE),
                                                               g_main_loop_unref};
  std::optional<Changes> changes_;
  /// Why it ends by itself.
  std::optional<CommandError> failure_;
  std::set<int> chosen_;
  guint counted_ = 0;
  guint idle_timer_ = 0;
};

// A daemon that comes back without one of them may get it later; the first must know them all.
void Monitor::choose_ports() {
  if (!chosen_.empty()) {
    return;
  }
  try {
    for (const auto& port : options_.ports) {
      chosen_.insert(daemon_.port(daemon_.resolve(port)).number);
    }
  } catch (const CommandError& error) {
    fail(error);
  }
}

void Monitor::fail(const CommandError& failure) {
  failure_ = failure;
  end();
}

// Each line is out before the next change; nothing is thrown through a callback of the loop.
void Monitor::tell(const MonitorLine& line) {
  if (failure_) {
    return;
  }
  try {
    print_text(options_.format.shown(line));
    flush_output();
    restart_idle_timer();
  } catch (const CommandError& error) {
    fail(error);
  }
}

void Monitor::on_port(int port, const MonitorLine& line) {
  if (!wants(port) || (options_.count && counted_ >= *options_.count)) {
    return;
  }
  tell(line);
  counted_++;
  if (options_.count && counted_ >= *options_.count) {
    end();
  }
}

void Monitor::on_daemon_there(const MonitorLine& line) {
  choose_ports();
  if (!options_.quiet || line.kind != std::string_view("watching")) {
    tell(line);
  }
  if (options_.initial && !failure_) {
    changes_->tell_initial();
  }
}

// Without waiting for a next line: the reader's end is what the signal of a broken pipe tells, and
// it ends the process unless whoever started it has it ignored.
gboolean Monitor::on_reader_left(gint /*output*/, GIOCondition /*condition*/, gpointer self) {
  raise(SIGPIPE);
  static_cast<Monitor*>(self)->fail(unwritable(EPIPE));
  return G_SOURCE_REMOVE;
}

void Monitor::on_bus_closed(GDBusConnection* /*connection*/, gboolean /*by_peer*/,
                            GError* /*error*/, gpointer self) {
  static_cast<Monitor*>(self)->fail(unreachable("the system bus has ended"));
}

gboolean Monitor::on_idle_timeout(gpointer self) {
  auto* monitor = static_cast<Monitor*>(self);
  monitor->idle_timer_ = 0;
  monitor->end();
  return G_SOURCE_REMOVE;
}

gboolean Monitor::on_timeout(gpointer self) {
  static_cast<Monitor*>(self)->fail(timed_out());
  return G_SOURCE_CONTINUE;
}

gboolean Monitor::on_interrupt(gpointer self) {
  static_cast<Monitor*>(self)->end();
  return G_SOURCE_CONTINUE;
}

void Monitor::restart_idle_timer() {
  if (idle_timer_ != 0) {
    g_source_remove(std::exchange(idle_timer_, 0));
  }
  if (options_.idle_timeout) {
    idle_timer_ = g_timeout_add(*options_.idle_timeout, on_idle_timeout, this);
  }
}

void Monitor::watch_loop() {
  const guint interrupted = g_unix_signal_add(SIGINT, on_interrupt, this);
  const guint terminated = g_unix_signal_add(SIGTERM, on_interrupt, this);
  const guint timer = options_.timeout ? g_timeout_add(*options_.timeout, on_timeout, this) : 0;
  restart_idle_timer();
  // No condition is asked for, so that only an error is told.
  g_unix_fd_add(STDOUT_FILENO, G_IO_ERR, on_reader_left, this);
  g_main_loop_run(loop_.get());
  g_source_remove(interrupted);
  g_source_remove(terminated);
  if (timer != 0) {
    g_source_remove(timer);
  }
}

void Monitor::run() {
  const SignalHandler closed(daemon_.connection(), "closed", G_CALLBACK(on_bus_closed), this);
  changes_.emplace(daemon_, *this);
  watch_loop();
  changes_.reset();
  if (failure_) {
    throw CommandError(*failure_);
  }
}

} // namespace

void monitor(const Daemon& daemon, const MonitorOptions& options) {
  if (std::ranges::find(options.ports, "") != options.ports.end()) {
    throw empty_port();
  }
  Monitor(daemon, options).run();
}

} // namespace wexctl
