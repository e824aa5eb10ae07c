// What happens to the ports and to the daemon, as lines.
#pragma once

#include "wexctl/bus.h"
#include "wexctl/monitor-line.h"
#include "wexctl/supervised.h"
#include "wexctl/vigil.h"

#include <map>
#include <set>
#include <string>

namespace wexctl {

/// Whoever wants to know. Called in callbacks of the loop, so nothing may be thrown.
class ChangeListener {
public:
  virtual ~ChangeListener() = default;
  /// Of a port that is not wanted nothing is found out.
  [[nodiscard]] virtual bool wants(int /*port*/) const { return true; }
  virtual void on_port(int port, const MonitorLine& line) = 0;
  /// The daemon was there from the start, came, or came back; what it serves is known.
  virtual void on_daemon_there(const MonitorLine& line) = 0;
  /// The daemon went, or was not there from the start.
  virtual void on_daemon_absent(const MonitorLine& line) = 0;
};

/// Follows the signals of all services for as long as this lives, in the main context that was the
/// thread's own when daemon and this were made.
class Changes {
public:
  Changes(const Daemon& daemon, ChangeListener& listener);
  ~Changes();
  Changes(const Changes&) = delete;
  Changes& operator=(const Changes&) = delete;

  /// A line for the present state of each port.
  void tell_initial();

private:
  /// A port's state as it was told or found.
  struct SeenState {
    int port;
    bool state;
    bool input;
    bool activelow;
    /// Announced by a client; the line may be at anything.
    bool announced = false;
  };

  static void on_port_changed(IOControlState*, gint port, gboolean is_virtual, gboolean hidden,
                              gboolean input, gboolean virtual_trig, gboolean state,
                              gboolean activelow, gpointer self);
  static void on_sequence_done(IOControlState*, gint port, gpointer self);
  static void on_setting(GDBusConnection*, const gchar* sender, const gchar* path,
                         const gchar* interface, const gchar* signal, GVariant* arguments,
                         gpointer self);
  static void on_appeared(GDBusConnection*, const gchar* name, const gchar* owner, gpointer self);
  static void on_supervision_served(GObject* proxy, GParamSpec* property, gpointer self);
  static void on_vanished(GDBusConnection*, const gchar* name, gpointer self);

  void learn();
  std::string name_of(int port);
  [[nodiscard]] SupervisedWord word_of(const SeenState& seen) const;
  void tell_state(const char* kind, const SeenState& seen, const Json& more,
                  const std::string& remark);
  void tell_setting(int port, const char* interface, const char* property, GVariant* value);

  const Daemon& daemon_;
  ChangeListener& listener_;
  /// Whether the daemon was seen before, so that its coming now is a return.
  bool seen_ = false;
  bool present_ = false;
  std::map<int, std::string> names_;
  std::set<int> supervisable_;
  SignalHandler changed_;
  SignalHandler done_;
  SignalHandler supervision_;
  guint settings_;
  guint watch_;
};

} // namespace wexctl
