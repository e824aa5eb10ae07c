// Watches the daemon on a thread of its own, so that one that does not answer holds nobody up.
#pragma once

#include "wexctl/changes.h"
#include "wexctl/live/look.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace wexctl {

/// Something to be told with the time at which it happened.
struct Happening {
  /// Of a MonitorLine, "note" or "trouble".
  std::string kind;
  /// "on", "off" or a supervised word, if it is about a state.
  std::string state;
  /// Fit for a terminal.
  std::string text;
  /// The time of day.
  std::string at;
};

/// That it happens now.
Happening happening(const std::string& kind, const std::string& text,
                    const std::string& state = "");

/// What came since the last time.
struct News {
  std::vector<Happening> happenings;
  std::optional<Look> look;
  /// Nothing while that is not known.
  std::optional<bool> daemon_there;
};

class Watch : public ChangeListener {
public:
  /// `arrived` is called on the watching thread, whenever there are news to take.
  Watch(GDBusConnection* connection, std::function<void()> arrived);
  /// Closes the connection, which ends a question that nobody answers.
  ~Watch() override;
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  News take();
  /// Whether the daemon has left a question open for longer than it should.
  [[nodiscard]] bool waits() const;

private:
  void run();
  void look();
  void look_soon();
  void tell(const MonitorLine& line);
  guint attach(guint after_ms, GSourceFunc call);

  void on_port(int port, const MonitorLine& line) override;
  void on_daemon_there(const MonitorLine& line) override;
  void on_daemon_absent(const MonitorLine& line) override;
  static gboolean on_tick(gpointer self);
  static gboolean on_soon(gpointer self);
  static gboolean on_end(gpointer self);

  GDBusConnection* const connection_;
  const std::function<void()> arrived_;
  GMainContext* const context_;
  GMainLoop* const loop_;

  /// Of the watching thread.
  std::optional<Looker> looker_;
  bool soon_ = false;
  guint looks_ = 0;

  std::atomic<gint64> answered_us_;
  /// Guards what both threads touch.
  std::mutex mutex_;
  News news_;
  std::thread thread_;
};

} // namespace wexctl
