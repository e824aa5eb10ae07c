// What there is to see of the daemon and its ports at one moment.
#pragma once

#include "wexctl/ports.h"
#include "wexctl/status.h"

#include <map>
#include <string>
#include <vector>

namespace wexctl {

struct SeenPort {
  PortInfo info;
  PortDetails more;
  /// A sequence runs on it.
  bool runs = false;
  bool supervisable = false;
  /// Described, but out of service.
  bool missing = false;
};

struct Look {
  /// By number, those that are missing included.
  std::vector<SeenPort> ports;
  /// Supervisable ports as supervised_json has them.
  std::vector<Json> lines;
  /// As daemon_status has it; empty before the first look.
  Json status = Json::object();
};

/// Takes looks, and asks for settings only where they may be others than the last time.
class Looker {
public:
  explicit Looker(const Daemon& daemon) : daemon_(daemon) {}
  /// Settings may have changed.
  void forget() { known_.clear(); }
  /// Throws when the daemon does not answer.
  Look look();

private:
  [[nodiscard]] std::vector<Json> lines(const std::vector<PortInfo>& ports) const;
  const PortDetails& details(const PortInfo& port);

  const Daemon& daemon_;
  std::map<int, PortDetails> known_;
};

} // namespace wexctl
