#include "wexctl/live/look.h"

#include "wexctl/supervised.h"

#include <algorithm>

namespace wexctl {

namespace {

// Of a line, what state its port shows; an output is not measured, whatever its settings say.
SupervisedWord word_of(const Json& line, const PortInfo& port) {
  if (!port.input || line["supervised"] != true) {
    return std::nullopt;
  }
  return line.value("state", "undefined");
}

// A port that is out of service has nothing but what the daemon says of it.
SeenPort missing_port(const Json& port) {
  SeenPort seen{.info{.name = port["name"].get<std::string>(),
                      .number = port["number"].get<int>(),
                      .state = false,
                      .input = false,
                      .configurable = false,
                      .activelow = false,
                      .properties = {}},
                .more = {},
                .missing = true};
  seen.more.usage = port["reason"].get<std::string>();
  return seen;
}

bool holds(const Json& numbers, int number) {
  return std::ranges::find(numbers, Json(number)) != numbers.end();
}

} // namespace

const PortDetails& Looker::details(const PortInfo& port) {
  const auto known = known_.find(port.number);
  return known != known_.end()
             ? known->second
             : known_.emplace(port.number, port_details(daemon_, port)).first->second;
}

// A daemon takes its names one after the other, so this service may be missing for a while.
std::vector<Json> Looker::lines(const std::vector<PortInfo>& ports) const {
  std::vector<Json> lines;
  try {
    const auto numbers = supervisable_numbers(daemon_);
    for (const auto& port : ports) {
      if (std::ranges::find(numbers, static_cast<guint>(port.number)) != numbers.end()) {
        lines.push_back(supervised_json(daemon_, port));
      }
    }
  } catch (const CommandError&) {
    lines.clear();
  }
  return lines;
}

Look Looker::look() {
  Look look;
  const auto ports = daemon_.ports();
  look.status = daemon_status(daemon_);
  look.lines = lines(ports);
  std::erase_if(known_, [&](const auto& known) {
    return std::ranges::find(ports, known.first, &PortInfo::number) == ports.end();
  });
  for (const auto& port : ports) {
    SeenPort seen{
        .info = port, .more = details(port), .runs = holds(look.status["sequences"], port.number)};
    const auto line = std::ranges::find_if(
        look.lines, [&](const Json& one) { return one["number"] == port.number; });
    seen.supervisable = line != look.lines.end();
    seen.more.supervised = seen.supervisable ? word_of(*line, port) : std::nullopt;
    look.ports.push_back(seen);
  }
  std::ranges::transform(look.status["missing"], std::back_inserter(look.ports), missing_port);
  std::ranges::stable_sort(look.ports, {}, [](const SeenPort& port) { return port.info.number; });
  return look;
}

} // namespace wexctl
