// A second implementation of the device's event library: it keeps what it is told for the test to
// look at, and refuses what it is told to refuse.
#pragma once

#include "platform/event-library.h"

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace fake_events {

struct Key {
  std::string name;
  NvEventType type;
  std::optional<std::string> value = std::nullopt;
  std::string name_space = {};
  std::vector<std::string> tags = {};
  std::optional<std::string> key_nice_name = std::nullopt;
  std::optional<std::string> value_nice_name = std::nullopt;
};

struct Declaration {
  std::string type_name;
  std::vector<Key> keys;
  std::optional<std::string> property = std::nullopt;
  NvEventFill fill = nullptr;
  gpointer user_data = nullptr;

  /// The key of that name; ends the test program when there is none.
  [[nodiscard]] const Key& key(const std::string& name) const;
};

/// The declaration of that id, declared or withdrawn; ends the test program for an unknown id.
const Declaration& declaration(guint id);
bool is_declared(guint id);
/// How often that type was declared since the process started.
int times_declared(const std::string& type_name);

/// What happened, oldest first: "declare IOPort", "undeclare IOPort", "send IOPort port=3 state=1".
/// Clears it.
std::vector<std::string> take_log();

/// Hears of everything as it happens, besides the log; NULL: nobody.
extern void (*listener)(const std::string& line);

/// Calls a property's fill callback as the library would from its main loop; the event's values.
std::map<std::string, std::string> ask(guint id);

/// Operations that fail.
enum class Refuse { Declare, Prepare, Send, SendWithError, NiceNames, Value, Property };
void refuse(Refuse operation, bool on = true);

/// Types beside the prefix "Known" that `declaration_new_from_type` knows; they take any key.
void add_property_type(const std::string& type_name, const std::string& property);

/// Names given to producers since the process started.
std::vector<std::string> producers();

/// Back to the defaults, for the next test. Declarations stay, as they do in the real library.
void reset();

} // namespace fake_events
