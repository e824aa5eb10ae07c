#include "wexctl/supervised.h"

#include "wexctl/output.h"

#include <fmt/format.h>

#include <algorithm>

namespace wexctl {

namespace {

// By reference, so that the error is looked at after the call that sets it.
void check(gboolean done, GError*& error) {
  if (!done) {
    throw_bus_error(error);
  }
}

struct Readout {
  std::string state;
  guint level = 0;
};

Readout read_port(const Daemon& daemon, guint number) {
  gchar* state = nullptr;
  Readout readout;
  GError* error = nullptr;
  check(iosupervised_supervised_call_get_supervised_readout_sync(
            daemon.supervised(), number, &state, &readout.level, nullptr, &error),
        error);
  readout.state = state;
  g_free(state);
  return readout;
}

Json ranges_json(const Daemon& daemon, guint number) {
  GVariant* ranges = nullptr;
  GError* error = nullptr;
  check(iosupervised_supervised_call_get_supervised_ranges_sync(daemon.supervised(), number,
                                                                &ranges, nullptr, &error),
        error);
  const Variant owned(ranges);
  Json array = Json::array();
  GVariantIter iter;
  g_variant_iter_init(&iter, ranges);
  const char* state = nullptr;
  guint lower = 0;
  guint upper = 0;
  while (g_variant_iter_next(&iter, "(&suu)", &state, &lower, &upper)) {
    array.push_back({{"state", state}, {"lower", lower}, {"upper", upper}});
  }
  return array;
}

std::string ranges_text(const Json& ranges) {
  std::string text;
  for (const auto& range : ranges) {
    text += fmt::format("{}{} {}-{}", text.empty() ? "" : ", ", range["state"].get<std::string>(),
                        range["lower"].get<guint>(), range["upper"].get<guint>());
  }
  return text;
}

// In the order of their numbers, as everywhere.
std::vector<PortInfo> supervisable_ports(const Daemon& daemon) {
  const auto numbers = supervisable_numbers(daemon);
  auto ports = daemon.ports();
  std::erase_if(ports, [&](const PortInfo& port) {
    return std::ranges::find(numbers, static_cast<guint>(port.number)) == numbers.end();
  });
  return ports;
}

} // namespace

namespace {

// The daemon takes its names one after the other, and the library would lose what a call carries to
// a name that nobody has.
void need_the_service(const Daemon& daemon) {
  g_autofree gchar* owner = g_dbus_proxy_get_name_owner(G_DBUS_PROXY(daemon.supervised()));
  if (owner == nullptr) {
    throw unreachable(daemon.present() ? "it is starting or ending" : "it is not running");
  }
}

} // namespace

std::vector<guint> supervisable_numbers(const Daemon& daemon) {
  need_the_service(daemon);
  GVariant* ports = nullptr;
  GError* error = nullptr;
  check(iosupervised_supervised_call_get_supervised_port_numbers_sync(daemon.supervised(), &ports,
                                                                      nullptr, &error),
        error);
  const Variant owned(ports);
  std::vector<guint> numbers;
  for (gsize i = 0; i < g_variant_n_children(ports); i++) {
    const Variant number(g_variant_get_child_value(ports, i));
    numbers.push_back(g_variant_get_uint32(number.get()));
  }
  return numbers;
}

namespace {

// Only those of some kinds can be; a daemon that goes takes this service off the bus first.
bool is_supervised(const Daemon& daemon, int number) {
  need_the_service(daemon);
  gboolean on = FALSE;
  GError* error = nullptr;
  if (iosupervised_supervised_call_get_supervised_sync(
          daemon.supervised(), static_cast<guint>(number), &on, nullptr, &error)
      != FALSE) {
    return on != FALSE;
  }
  try {
    throw_bus_error(error);
  } catch (const CommandError& refusal) {
    if (refusal.status() == Status::Unreachable) {
      throw;
    }
  }
  return false;
}

} // namespace

// One that cannot be read now is undefined, as it is where its level is in no range.
SupervisedWord supervised_word(const Daemon& daemon, int number, bool input) {
  if (!input || !is_supervised(daemon, number)) {
    return std::nullopt;
  }
  try {
    return read_port(daemon, static_cast<guint>(number)).state;
  } catch (const CommandError& error) {
    if (error.status() == Status::Unreachable) {
      throw;
    }
    return "undefined";
  }
}

// A port that cannot be read now is shown as such; the others are still worth seeing. One whose
// supervision is off has no state that would mean anything.
Json supervised_json(const Daemon& daemon, const PortInfo& port) {
  const auto number = static_cast<guint>(port.number);
  gboolean on = FALSE;
  iosupervised_supervised_call_get_supervised_sync(daemon.supervised(), number, &on, nullptr,
                                                   nullptr);
  Json entry{{"number", port.number}, {"name", port.name}, {"supervised", on != FALSE}};
  try {
    if (on != FALSE) {
      const auto readout = read_port(daemon, number);
      entry["state"] = readout.state;
      entry["level"] = readout.level;
    }
  } catch (const CommandError& error) {
    entry["error"] = error.what();
  }
  entry["ranges"] = ranges_json(daemon, number);
  return entry;
}

void supervised_show(const Daemon& daemon, const std::optional<std::string>& port, bool json) {
  const auto ports =
      port ? std::vector<PortInfo>{daemon.port(daemon.resolve(*port))} : supervisable_ports(daemon);
  Json array = Json::array();
  Table table({"No", "Port", "Supervised", "State", "Level", "Ranges"});
  for (const auto& shown : ports) {
    const auto entry = supervised_json(daemon, shown);
    array.push_back(entry);
    // One that another service measures has no ranges, and a level that means nothing.
    const bool measured = entry.contains("level") && !entry["ranges"].empty();
    table.add({std::to_string(shown.number), shown.name, on_or_off(entry["supervised"] == true),
               entry.value("state", entry.value("error", "")),
               measured ? entry["level"].dump() : "", ranges_text(entry["ranges"])});
  }
  if (json) {
    print_json(array);
  } else {
    table.print();
  }
}

void supervised_switch(const Daemon& daemon, const std::string& port, bool on) {
  GError* error = nullptr;
  check(iosupervised_supervised_call_set_supervised_sync(daemon.supervised(), daemon.resolve(port),
                                                         on, nullptr, &error),
        error);
}

void supervised_ranges(const Daemon& daemon, const std::string& port, const std::string& state,
                       guint lower, guint upper, bool json) {
  const guint number = daemon.resolve(port);
  if (!state.empty()) {
    GError* error = nullptr;
    check(iosupervised_supervised_call_set_supervised_ranges_sync(
              daemon.supervised(), number, state.c_str(), lower, upper, nullptr, &error),
          error);
    return;
  }
  const auto ranges = ranges_json(daemon, number);
  if (json) {
    print_json(ranges);
    return;
  }
  Table table({"State", "Lower", "Upper"});
  for (const auto& range : ranges) {
    table.add({range["state"].get<std::string>(), range["lower"].dump(), range["upper"].dump()});
  }
  table.print();
}

void supervised_read(const Daemon& daemon, const std::string& port, bool json) {
  const auto readout = read_port(daemon, daemon.resolve(port));
  if (json) {
    print_json({{"state", readout.state}, {"level", readout.level}});
  } else {
    print("{} {}\n", readout.state, readout.level);
  }
}

} // namespace wexctl
