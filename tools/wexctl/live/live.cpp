#include "wexctl/live/live.h"

#include "wexctl/live/keys.h"
#include "wexctl/live/screen.h"
#include "wexctl/live/view.h"
#include "wexctl/live/watch.h"
#include "wexctl/output.h"
#include "wexctl/vigil.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <gio/gunixinputstream.h>
#include <glib-unix.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <optional>

namespace wexctl {

namespace {

constexpr guint tick_ms = 250;
constexpr size_t most_happenings = 500;

class Live {
public:
  Live(const Daemon& daemon, const LiveOptions& options);
  ~Live();
  Live(const Live&) = delete;
  Live& operator=(const Live&) = delete;

  void run();

private:
  static gboolean on_keys(gint, GIOCondition condition, gpointer self);
  static gboolean on_end(gpointer self);
  static gboolean on_resized(gpointer self);
  static gboolean on_tick(gpointer self);
  static gboolean on_news(gpointer self);
  static void on_bus_closed(GDBusConnection*, gboolean, GError*, gpointer self);
  static void on_answered(GObject* proxy, GAsyncResult* result, gpointer self);
  static void on_command_ended(GObject* process, GAsyncResult* result, gpointer self);
  static void on_noted(GObject* stream, GAsyncResult* result, gpointer self);

  void watch_sources();
  void open_notes();
  void next_note();
  void follow(News news);
  void look(Look look);
  void press(const std::string& key);
  bool move(const std::string& key);
  void drive(const ControlKey& key, const SeenPort& port);
  void command(const UserKey& key, const SeenPort* port);
  void tell(const std::string& kind, const std::string& text);
  void show();
  [[nodiscard]] const SeenPort* chosen() const;
  [[nodiscard]] std::string trouble() const;
  void end() { g_main_loop_quit(loop_.get()); }

  const Daemon& daemon_;
  const LiveOptions& options_;
  const std::vector<UserKey> user_keys_;
  const std::unique_ptr<GMainLoop, void (*)(GMainLoop*)> loop_{g_main_loop_new(nullptr, FALSE),
                                                               g_main_loop_unref};
  Owned<GDataInputStream> notes_;
  Owned<GCancellable> ended_{g_cancellable_new()};
  std::vector<guint> sources_;
  Scene scene_;
  std::optional<bool> daemon_there_;
  bool helped_ = false;
  std::optional<CommandError> failure_;
  std::optional<Screen> screen_;
  std::optional<Watch> watch_;
};

// Signals are taken before the library of the terminal would take them.
Live::Live(const Daemon& daemon, const LiveOptions& options)
    : daemon_(daemon), options_(options),
      user_keys_(options.keys.empty() ? std::vector<UserKey>() : read_user_keys(options.keys)) {
  open_notes();
  watch_sources();
}

Live::~Live() {
  g_cancellable_cancel(ended_.get());
  for (const guint source : sources_) {
    g_source_remove(source);
  }
}

void Live::watch_sources() {
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    sources_.push_back(g_unix_signal_add(number, on_end, this));
  }
  sources_.push_back(g_unix_signal_add(SIGWINCH, on_resized, this));
  sources_.push_back(g_unix_fd_add(
      STDIN_FILENO, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR), on_keys, this));
  sources_.push_back(g_timeout_add(tick_ms, on_tick, this));
}

// -- notes ---------------------------------------------------------------------------------------

void Live::open_notes() {
  if (options_.notes.empty()) {
    return;
  }
  const int file = open(options_.notes.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (file == -1) {
    throw CommandError(Status::Usage, fmt::format("cannot read notes from '{}': {}", options_.notes,
                                                  g_strerror(errno)));
  }
  const Owned<GInputStream> stream(g_unix_input_stream_new(file, TRUE));
  notes_.reset(g_data_input_stream_new(stream.get()));
  next_note();
}

void Live::next_note() {
  g_data_input_stream_read_line_async(notes_.get(), G_PRIORITY_DEFAULT, ended_.get(), on_noted,
                                      this);
}

// A word of the log's for trouble is one here.
void Live::on_noted(GObject* stream, GAsyncResult* result, gpointer self) {
  g_autofree gchar* line =
      g_data_input_stream_read_line_finish(G_DATA_INPUT_STREAM(stream), result, nullptr, nullptr);
  if (line == nullptr) { // ended, or this has
    return;
  }
  auto* live = static_cast<Live*>(self);
  const std::string text = line;
  static constexpr std::array<std::string_view, 3> alarming{"WARNING", "CRITICAL", "ERROR"};
  const bool bad = std::ranges::any_of(
      alarming, [&](std::string_view word) { return text.find(word) != std::string::npos; });
  live->tell(bad ? "trouble" : "aside", text);
  live->show();
  live->next_note();
}

// -- what the daemon says ------------------------------------------------------------------------

void Live::tell(const std::string& kind, const std::string& text) {
  scene_.happenings.push_back(happening(kind, printable(text)));
}

// The same port stays chosen, wherever it stands now.
void Live::look(Look look) {
  if (const auto* const before = chosen()) {
    const auto same = std::ranges::find_if(look.ports, [&](const SeenPort& port) {
      return port.info.number == before->info.number && port.info.name == before->info.name;
    });
    if (same != look.ports.end()) {
      scene_.chosen = static_cast<size_t>(same - look.ports.begin());
    }
  }
  scene_.look = std::move(look);
  const size_t count = scene_.look.ports.size();
  scene_.chosen = std::min(scene_.chosen, count > 0 ? count - 1 : 0);
}

void Live::follow(News news) {
  std::ranges::move(news.happenings, std::back_inserter(scene_.happenings));
  while (scene_.happenings.size() > most_happenings) {
    scene_.happenings.pop_front();
  }
  daemon_there_ = news.daemon_there;
  if (news.look) {
    look(std::move(*news.look));
  }
  show();
}

gboolean Live::on_news(gpointer self) {
  auto* live = static_cast<Live*>(self);
  if (live->watch_) {
    live->follow(live->watch_->take());
  }
  return G_SOURCE_REMOVE;
}

void Live::on_bus_closed(GDBusConnection* /*connection*/, gboolean /*by_peer*/, GError* /*error*/,
                         gpointer self) {
  auto* live = static_cast<Live*>(self);
  live->failure_ = unreachable("the system bus has ended");
  live->end();
}

std::string Live::trouble() const {
  if (watch_ && watch_->waits()) {
    return "wexd does not answer";
  }
  if (!daemon_there_) {
    return "asking wexd";
  }
  return *daemon_there_ ? "" : "wexd is not running, waiting for it";
}

// -- the terminal --------------------------------------------------------------------------------

const SeenPort* Live::chosen() const {
  const auto& ports = scene_.look.ports;
  return scene_.chosen < ports.size() ? &ports[scene_.chosen] : nullptr;
}

void Live::show() {
  scene_.trouble = trouble();
  scene_.hints = hints(chosen(), options_.control, user_keys_);
  scene_.help = helped_ ? all_keys(options_.control, user_keys_) : std::vector<Hint>();
  screen_->show(draw(scene_, screen_->size()));
}

gboolean Live::on_tick(gpointer self) {
  auto* live = static_cast<Live*>(self);
  if (live->trouble() != live->scene_.trouble) {
    live->show();
  }
  return G_SOURCE_CONTINUE;
}

gboolean Live::on_resized(gpointer self) {
  auto* live = static_cast<Live*>(self);
  live->screen_->follow_size();
  live->show();
  return G_SOURCE_CONTINUE;
}

gboolean Live::on_end(gpointer self) {
  static_cast<Live*>(self)->end();
  return G_SOURCE_CONTINUE;
}

// A terminal that is gone has nothing more to say.
gboolean Live::on_keys(gint /*input*/, GIOCondition condition, gpointer self) {
  auto* live = static_cast<Live*>(self);
  bool any = false;
  while (const auto key = live->screen_->key()) {
    any = true;
    live->press(*key);
  }
  live->show();
  if (!any && (condition & (G_IO_HUP | G_IO_ERR)) != 0) {
    live->end();
    return G_SOURCE_CONTINUE;
  }
  return G_SOURCE_CONTINUE;
}

// -- keys ----------------------------------------------------------------------------------------

// Whether the key is one that moves about.
bool Live::move(const std::string& key) {
  const auto count = static_cast<long>(scene_.look.ports.size());
  struct Step {
    std::string_view key;
    long by;
  };
  const std::array steps{Step{"up", -1},      Step{"k", -1},        Step{"down", 1},
                         Step{"j", 1},        Step{"home", -count}, Step{"end", count},
                         Step{"pageup", -10}, Step{"pagedown", 10}};
  const auto* const step = std::ranges::find(steps, key, &Step::key);
  if (step == steps.end()) {
    return false;
  }
  const long to = static_cast<long>(scene_.chosen) + step->by;
  scene_.chosen = static_cast<size_t>(std::clamp(to, 0L, std::max(count - 1, 0L)));
  return true;
}

void Live::press(const std::string& key) {
  if (key == "q" || key == "control-c" || key == "control-d") {
    end();
  } else if (key == "?" || key == "h") {
    helped_ = !helped_;
  } else if (!helped_ && !move(key)) {
    const auto* const port = chosen();
    const auto* const own = port != nullptr ? control_key(key, *port) : nullptr;
    if (own != nullptr && options_.control) {
      drive(*own, *port);
      return;
    }
    const auto user = std::ranges::find_if(
        user_keys_, [&](const UserKey& one) { return one.key == key && one.applies(port); });
    if (user != user_keys_.end()) {
      command(*user, port);
    } else if (own != nullptr) {
      tell("trouble", "read-only: wexctl live --control drives outputs");
    }
  }
}

// A daemon that is not there would be started by nobody, and a state from before it went is old.
void Live::drive(const ControlKey& key, const SeenPort& port) {
  if (!daemon_there_.value_or(false)) {
    tell("trouble", "wexd is not running");
    return;
  }
  key.act(daemon_, port, on_answered, this);
}

void Live::on_answered(GObject* proxy, GAsyncResult* result, gpointer self) {
  GError* error = nullptr;
  const Variant answer(g_dbus_proxy_call_finish(G_DBUS_PROXY(proxy), result, &error));
  if (answer != nullptr) {
    return;
  }
  auto* live = static_cast<Live*>(self);
  try {
    throw_bus_error(error);
  } catch (const CommandError& refusal) {
    live->tell("trouble", refusal.what());
  }
  live->show();
}

void Live::command(const UserKey& key, const SeenPort* port) {
  const Owned<GSubprocessLauncher> launcher(g_subprocess_launcher_new(static_cast<GSubprocessFlags>(
      G_SUBPROCESS_FLAGS_STDOUT_SILENCE | G_SUBPROCESS_FLAGS_STDERR_PIPE)));
  const auto set = [&](const char* name, const std::string& value) {
    g_subprocess_launcher_setenv(launcher.get(), name, value.c_str(), TRUE);
  };
  set("WEXCTL_PORT", port != nullptr ? std::to_string(port->info.number) : "");
  set("WEXCTL_NAME", port != nullptr ? port->info.name : "");
  GError* error = nullptr;
  const Owned<GSubprocess> process(g_subprocess_launcher_spawn(launcher.get(), &error, "/bin/sh",
                                                               "-c", key.command.c_str(), nullptr));
  if (process == nullptr) {
    tell("trouble", error->message);
    g_error_free(error);
    return;
  }
  g_subprocess_communicate_utf8_async(process.get(), nullptr, ended_.get(), on_command_ended, this);
}

// Its first words say best what went wrong.
void Live::on_command_ended(GObject* process, GAsyncResult* result, gpointer self) {
  auto* const ended = G_SUBPROCESS(process);
  g_autofree gchar* said = nullptr;
  if (g_subprocess_communicate_utf8_finish(ended, result, nullptr, &said, nullptr) == FALSE
      || g_subprocess_get_successful(ended) != FALSE) {
    return;
  }
  const std::string text = said != nullptr ? said : "";
  auto* live = static_cast<Live*>(self);
  live->tell("trouble",
             text.empty() ? "the command of that key failed" : text.substr(0, text.find('\n')));
  live->show();
}

void Live::run() {
  const SignalHandler closed(daemon_.connection(), "closed", G_CALLBACK(on_bus_closed), this);
  screen_.emplace();
  watch_.emplace(daemon_.connection(), [this] { g_idle_add(on_news, this); });
  show();
  g_main_loop_run(loop_.get());
  screen_.reset();
  watch_.reset();
  if (failure_) {
    throw CommandError(*failure_);
  }
}

} // namespace

void live(const Daemon& daemon, const LiveOptions& options) {
  keep_text_plain();
  Live(daemon, options).run();
}

} // namespace wexctl
