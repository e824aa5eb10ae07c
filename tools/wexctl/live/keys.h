// What keys do to the chosen port: the screen's own, and those that a user has added.
#pragma once

#include "wexctl/live/view.h"

#include <string>
#include <vector>

namespace wexctl {

/// A key that drives an output.
struct ControlKey {
  const char* key;
  const char* hint;
  const char* help;
  /// The call: interface of its own and arguments.
  void (*act)(const Daemon& daemon, const SeenPort& port, GAsyncReadyCallback answered,
              gpointer data);
};
/// The one that the key is for this port; none if there is none.
const ControlKey* control_key(const std::string& key, const SeenPort& port);

/// A key that runs a command of the user's.
struct UserKey {
  std::string key;
  /// Of which ports.
  bool (*applies)(const SeenPort* port);
  std::string hint;
  std::string command;
};
/// Lines of KEY FOR HINT COMMAND; throws for any other.
std::vector<UserKey> read_user_keys(const std::string& file);

/// What can be done with a port, for the foot of the screen.
std::vector<Hint> hints(const SeenPort* port, bool control, const std::vector<UserKey>& own);
/// Every key.
std::vector<Hint> all_keys(bool control, const std::vector<UserKey>& own);

} // namespace wexctl
