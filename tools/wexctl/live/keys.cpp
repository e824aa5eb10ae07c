#include "wexctl/live/keys.h"

#include "wexctl/live/screen.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <sstream>

namespace wexctl {

namespace {

constexpr int pulse_ms = 500;

guint number_of(const SeenPort& port) {
  return static_cast<guint>(port.info.number);
}

void set(const Daemon& daemon, const SeenPort& port, bool state, GAsyncReadyCallback answered,
         gpointer data) {
  g_dbus_proxy_call(G_DBUS_PROXY(daemon.state()), "SetState",
                    g_variant_new("(ub)", number_of(port), static_cast<gboolean>(state)),
                    G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, nullptr, answered, data);
}

void switch_on(const Daemon& daemon, const SeenPort& port, GAsyncReadyCallback answered,
               gpointer data) {
  set(daemon, port, true, answered, data);
}

void switch_off(const Daemon& daemon, const SeenPort& port, GAsyncReadyCallback answered,
                gpointer data) {
  set(daemon, port, false, answered, data);
}

void toggle(const Daemon& daemon, const SeenPort& port, GAsyncReadyCallback answered,
            gpointer data) {
  set(daemon, port, !port.info.state, answered, data);
}

void pulse(const Daemon& daemon, const SeenPort& port, GAsyncReadyCallback answered,
           gpointer data) {
  GVariantBuilder steps;
  g_variant_builder_init(&steps, G_VARIANT_TYPE("a(bi)"));
  g_variant_builder_add(&steps, "(bi)", TRUE, pulse_ms);
  g_variant_builder_add(&steps, "(bi)", FALSE, 0);
  g_dbus_proxy_call(G_DBUS_PROXY(daemon.state()), "StartActionSequence",
                    g_variant_new("(uba(bi))", number_of(port), FALSE, &steps),
                    G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, nullptr, answered, data);
}

void stop(const Daemon& daemon, const SeenPort& port, GAsyncReadyCallback answered, gpointer data) {
  g_dbus_proxy_call(G_DBUS_PROXY(daemon.manager()), "StopSequence",
                    g_variant_new("(u)", number_of(port)), G_DBUS_CALL_FLAGS_NO_AUTO_START, -1,
                    nullptr, answered, data);
}

constexpr std::array control_keys{
    ControlKey{"space", "toggle", "turn the output over (also Enter)", toggle},
    ControlKey{"o", "on", "switch the output on", switch_on},
    ControlKey{"f", "off", "switch the output off", switch_off},
    ControlKey{"p", "pulse", "switch the output on for half a second", pulse},
    ControlKey{"x", "stop", "stop the sequence that runs on the output", stop},
};

// One without hardware is announced, not driven.
bool is_driven(const SeenPort& port) {
  return !port.missing && !port.info.input && !port.info.has("virtual");
}

struct Kind {
  std::string_view word;
  bool (*applies)(const SeenPort* port);
};

bool is_there(const SeenPort* port) {
  return port != nullptr && !port->missing;
}

constexpr std::array kinds{
    Kind{"always", [](const SeenPort*) { return true; }},
    Kind{"port", is_there},
    Kind{"input", [](const SeenPort* port) { return is_there(port) && port->info.input; }},
    Kind{"output", [](const SeenPort* port) { return is_there(port) && !port->info.input; }},
    Kind{"switchable",
         [](const SeenPort* port) { return is_there(port) && port->info.configurable; }},
    Kind{"supervisable", [](const SeenPort* port) { return is_there(port) && port->supervisable; }},
    Kind{"missing", [](const SeenPort* port) { return port != nullptr && port->missing; }},
};

constexpr std::array<std::string_view, 13> taken{
    "up",        "down", "home", "end", "pageup", "pagedown", "control-c",
    "control-d", "k",    "j",    "h",   "?",      "q"};

constexpr std::array moves{
    std::pair{"↑ ↓", "choose a port (also k and j, home, end and the page keys)"},
    std::pair{"?", "show the keys, or hide them (also h)"},
    std::pair{"q", "quit"},
};

// Why the words are not those of a key; empty if they are.
std::string mistake(const UserKey& made, const std::string& kind) {
  if (!is_key(made.key)) {
    return fmt::format("'{}' is no key", made.key);
  }
  if (std::ranges::find(taken, made.key) != taken.end()) {
    return fmt::format("'{}' is a key of the screen", made.key);
  }
  if (made.applies == nullptr) {
    return fmt::format("'{}' is no kind of port", kind);
  }
  return made.command.empty() ? "a line is KEY FOR HINT COMMAND" : "";
}

UserKey parse(const std::string& line, const std::string& file, int number) {
  std::istringstream words(line);
  UserKey made{};
  std::string kind;
  words >> made.key >> kind >> made.hint >> std::ws;
  std::getline(words, made.command);
  const auto* const found = std::ranges::find(kinds, kind, &Kind::word);
  made.applies = found != kinds.end() ? found->applies : nullptr;
  if (const auto wrong = mistake(made, kind); !wrong.empty()) {
    throw CommandError(Status::Usage, fmt::format("{}:{}: {}", file, number, wrong));
  }
  return made;
}

} // namespace

const ControlKey* control_key(const std::string& key, const SeenPort& port) {
  const std::string name = key == "enter" ? "space" : key;
  const auto* const found =
      std::ranges::find_if(control_keys, [&](const ControlKey& one) { return name == one.key; });
  return found != control_keys.end() && is_driven(port) ? found : nullptr;
}

std::vector<UserKey> read_user_keys(const std::string& file) {
  std::ifstream stream(file);
  if (!stream) {
    throw CommandError(Status::Usage,
                       fmt::format("cannot read keys from '{}': {}", file, g_strerror(errno)));
  }
  std::vector<UserKey> keys;
  std::string line;
  for (int number = 1; std::getline(stream, line); number++) {
    const auto start = line.find_first_not_of(" \t");
    if (start != std::string::npos && line[start] != '#') {
      keys.push_back(parse(line, file, number));
    }
  }
  return keys;
}

std::vector<Hint> hints(const SeenPort* port, bool control, const std::vector<UserKey>& own) {
  std::vector<Hint> shown;
  if (!control) {
    shown.push_back({.key = "", .text = "read-only; --control drives outputs"});
  } else if (port != nullptr && is_driven(*port)) {
    for (const auto& key : control_keys) {
      shown.push_back({.key = key.key, .text = key.hint});
    }
  }
  for (const auto& key : own) {
    const bool covered = control && port != nullptr && control_key(key.key, *port) != nullptr;
    // What always works would leave no room for what works here.
    if (key.applies(port) && !key.applies(nullptr) && !covered) {
      shown.push_back({.key = key.key, .text = key.hint});
    }
  }
  return shown;
}

std::vector<Hint> all_keys(bool control, const std::vector<UserKey>& own) {
  std::vector<Hint> all;
  for (const auto& key : control_keys) {
    all.push_back({.key = key.key,
                   .text = fmt::format("{}{}", key.help, control ? "" : ", only with --control")});
  }
  for (const auto& key : own) {
    all.push_back({.key = key.key, .text = key.hint});
  }
  for (const auto& [key, text] : moves) {
    all.push_back({.key = key, .text = text});
  }
  return all;
}

} // namespace wexctl
