#include "wexctl/live/watch.h"

#include <string_view>

namespace wexctl {

namespace {

constexpr guint tick_ms = 1000;
// A burst of changes is looked at once.
constexpr guint soon_ms = 50;
// What is never announced is asked for again now and then.
constexpr guint looks_until_forgotten = 10;
constexpr gint64 patience_us = 3 * G_USEC_PER_SEC;

} // namespace

Happening happening(const std::string& kind, const std::string& text, const std::string& state) {
  g_autoptr(GDateTime) now = g_date_time_new_now_local();
  g_autofree gchar* at = g_date_time_format(now, "%T");
  return {.kind = kind, .state = state, .text = text, .at = at};
}

Watch::Watch(GDBusConnection* connection, std::function<void()> arrived)
    : connection_(connection), arrived_(std::move(arrived)), context_(g_main_context_new()),
      loop_(g_main_loop_new(context_, FALSE)), answered_us_(g_get_monotonic_time()),
      thread_([this] { run(); }) {}

Watch::~Watch() {
  attach(0, on_end);
  g_dbus_connection_close_sync(connection_, nullptr, nullptr);
  thread_.join();
  g_main_loop_unref(loop_);
  g_main_context_unref(context_);
}

guint Watch::attach(guint after_ms, GSourceFunc call) {
  GSource* const source = g_timeout_source_new(after_ms);
  g_source_set_callback(source, call, this, nullptr);
  const guint id = g_source_attach(source, context_);
  g_source_unref(source);
  return id;
}

// The proxies are made here, so that their signals come here. A bus that is gone by now is noticed
// by whoever opened the connection.
void Watch::run() {
  g_main_context_push_thread_default(context_);
  try {
    const Daemon daemon;
    const Changes changes(daemon, *this);
    looker_.emplace(daemon);
    attach(tick_ms, on_tick);
    g_main_loop_run(loop_);
    looker_.reset();
  } catch (const CommandError&) {
    g_main_loop_run(loop_);
  }
  // What the proxies have left to be freed is freed in this context.
  while (g_main_context_iteration(context_, FALSE) != FALSE) {
  }
  g_main_context_pop_thread_default(context_);
}

News Watch::take() {
  const std::scoped_lock lock(mutex_);
  News taken = std::move(news_);
  news_ = {.happenings = {}, .look = std::nullopt, .daemon_there = taken.daemon_there};
  return taken;
}

bool Watch::waits() const {
  return g_get_monotonic_time() - answered_us_ > patience_us;
}

void Watch::look() {
  if (looks_++ % looks_until_forgotten == 0) {
    looker_->forget();
  }
  std::optional<Look> seen;
  try {
    seen = looker_->look();
  } catch (const CommandError&) {
    seen.reset(); // the bus tells of its going
  }
  answered_us_ = g_get_monotonic_time();
  if (seen) {
    const std::scoped_lock lock(mutex_);
    news_.look = std::move(seen);
  }
  arrived_();
}

void Watch::look_soon() {
  if (!std::exchange(soon_, true)) {
    attach(soon_ms, on_soon);
  }
}

gboolean Watch::on_tick(gpointer self) {
  static_cast<Watch*>(self)->look();
  return G_SOURCE_CONTINUE;
}

gboolean Watch::on_soon(gpointer self) {
  auto* watch = static_cast<Watch*>(self);
  watch->soon_ = false;
  watch->look();
  return G_SOURCE_REMOVE;
}

gboolean Watch::on_end(gpointer self) {
  g_main_loop_quit(static_cast<Watch*>(self)->loop_);
  return G_SOURCE_REMOVE;
}

void Watch::tell(const MonitorLine& line) {
  {
    const std::scoped_lock lock(mutex_);
    news_.happenings.push_back(happening(line.kind, line.text, line.state));
  }
  arrived_();
}

void Watch::on_port(int /*port*/, const MonitorLine& line) {
  if (line.kind == std::string_view("setting-changed")) {
    looker_->forget();
  }
  tell(line);
  look_soon();
}

void Watch::on_daemon_there(const MonitorLine& line) {
  {
    const std::scoped_lock lock(mutex_);
    news_.daemon_there = true;
  }
  looks_ = 0;
  if (line.kind != std::string_view("watching")) {
    tell(line);
  }
  look_soon();
}

void Watch::on_daemon_absent(const MonitorLine& line) {
  {
    const std::scoped_lock lock(mutex_);
    news_.daemon_there = false;
  }
  tell(line);
}

} // namespace wexctl
