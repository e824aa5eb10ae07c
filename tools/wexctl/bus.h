// The daemon as its client sees it: services on the system bus.
#pragma once

#include "dbus/iocontrol-manager-gen.h"
#include "dbus/iocontrol-state-gen.h"
#include "dbus/iosupervised-supervised-gen.h"
#include "dbus/wxd-connector-gen.h"

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace wexctl {

/// What the process ends with. Stable: scripts rely on it.
enum class Status : int {
  Ok = 0,
  /// The daemon refused, or `check` found something.
  Refused = 1,
  /// The command line makes no sense.
  Usage = 2,
  /// No bus, no daemon on it, or it went.
  Unreachable = 3,
  /// What was waited for did not come in time.
  TimedOut = 4,
  /// Standard output took less than there was to say.
  Unwritable = 5,
};

/// A failure to be told to the user.
class CommandError : public std::runtime_error {
public:
  CommandError(Status status, const std::string& message)
      : std::runtime_error(message), status_(status) {}
  [[nodiscard]] Status status() const { return status_; }

private:
  Status status_;
};

/// Throws what a failed bus call means: the daemon's message and its error name. Takes `error`.
[[noreturn]] void throw_bus_error(GError* error);

/// That nobody answers, and why.
CommandError unreachable(const std::string& reason);
/// That a PORT is an empty word.
CommandError empty_port();

struct Unref {
  template <typename T>
  void operator()(T* object) const {
    g_object_unref(object);
  }
};
template <typename T>
using Owned = std::unique_ptr<T, Unref>;

struct VariantUnref {
  void operator()(GVariant* variant) const { g_variant_unref(variant); }
};
using Variant = std::unique_ptr<GVariant, VariantUnref>;

struct Property {
  std::string key;
  bool value;
};

/// One port as the port control service shows it.
struct PortInfo {
  std::string name;
  int number;
  bool state;
  bool input;
  bool configurable;
  bool activelow;
  std::vector<Property> properties;

  [[nodiscard]] bool has(const std::string& property) const;
};

/// The connection and the services.
class Daemon {
public:
  /// Connects; throws when there is no bus.
  Daemon();

  [[nodiscard]] GDBusConnection* connection() const { return connection_.get(); }
  [[nodiscard]] IOControlState* state() const { return state_.get(); }
  [[nodiscard]] IOControlManager1* manager() const { return manager_.get(); }
  [[nodiscard]] WXDConnector* connector() const { return connector_.get(); }
  [[nodiscard]] IOSupervisedSupervised* supervised() const { return supervised_.get(); }

  /// Whether somebody serves the ports, as far as the bus has told.
  [[nodiscard]] bool present() const;
  /// Whether its supervision is served as well; its names come and go one by one.
  [[nodiscard]] bool supervises() const;

  /// Every port in service, by number.
  [[nodiscard]] std::vector<PortInfo> ports() const;

  /// The port of that number; throws for none.
  [[nodiscard]] PortInfo port(guint number) const;

  /// The number of a port told by number, description name, or the name that users see of the side
  /// in use, in this order. Throws for none, and for several of the same name.
  [[nodiscard]] guint resolve(const std::string& port) const;

private:
  Owned<GDBusConnection> connection_;
  Owned<IOControlState> state_;
  Owned<IOControlManager1> manager_;
  Owned<WXDConnector> connector_;
  Owned<IOSupervisedSupervised> supervised_;
};

} // namespace wexctl
