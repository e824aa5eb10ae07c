#include "description/check-port.h"

#include <fmt/format.h>

namespace {

using Findings = std::vector<PortFinding>;

std::string shown(const PortSketch& port) {
  if (!port.name.empty()) {
    return fmt::format("port '{}'", port.name);
  }
  return port.number ? fmt::format("port {}", *port.number) : std::string("a port");
}

void check_identity(const PortSketch& port, Findings& findings) {
  const auto text = shown(port);
  if (port.backend == nullptr) {
    findings.push_back(
        {Severity::Warning, fmt::format("{} names no known backend and is dropped", text)});
  }
  if (!port.number) {
    findings.push_back({Severity::Warning, fmt::format("{} has no number", text)});
  }
  if (port.name.empty()) {
    findings.push_back(
        {Severity::Note, fmt::format("{} has no name: its settings are not saved", text)});
  }
  if (!port.addressable) {
    findings.push_back(
        {Severity::Note,
         fmt::format("{} is neither \"ioport\" nor \"virtual\": no client can address it", text)});
  }
}

void check_polling(const PortSketch& port, Findings& findings) {
  if (port.backend->only_inputs && port.type != "input") {
    findings.push_back(
        {Severity::Error, fmt::format("{}: a {} port that is no input would end the daemon",
                                      shown(port), port.backend->name)});
  }
  if (!port.backend->is_polled || port.interval.value_or(0) != 0) {
    return;
  }
  findings.push_back(
      {Severity::Warning,
       port.interval
           ? fmt::format("{} has the 'timeout' 0 and would be polled without pause", shown(port))
           : fmt::format("{} has no 'timeout' and would be polled without pause", shown(port))});
}

bool is_needed(const PinNeed& pin, const std::string& type) {
  return type == "input" ? pin.of_inputs : type == "output" ? pin.of_outputs : pin.of_configurables;
}

void check_pin(const PortSketch& port, const PinNeed& pin, Findings& findings) {
  if (!is_needed(pin, port.type) || port.backend_elements.contains(pin.element)) {
    return;
  }
  findings.push_back(
      pin.is_fatal
          ? PortFinding{Severity::Error,
                        fmt::format("{}: without a '{}' pin it would end the daemon", shown(port),
                                    pin.element)}
          : PortFinding{Severity::Warning, fmt::format("{} has no '{}' pin and cannot be set up",
                                                       shown(port), pin.element)});
}

void check_pins(const PortSketch& port, Findings& findings) {
  if (port.pinless) {
    return;
  }
  for (const auto& pin : port.backend->pins) {
    check_pin(port, pin, findings);
  }
  const char* const other = port.type == "input" ? "output" : "input";
  if (port.backend->refuses_other_pin && port.type != "io_ctrl"
      && port.backend_elements.contains(other)) {
    findings.push_back(
        {Severity::Warning, fmt::format("{}: an {} with an '{}' pin cannot be set up", shown(port),
                                        port.type, other)});
  }
}

void check_number(const PortSketch& port, Findings& findings) {
  const auto limit = port.backend->number_limit;
  if (limit > 0 && port.number && (*port.number < 0 || *port.number >= limit)) {
    findings.push_back(
        {Severity::Warning, fmt::format("{}: {} ports have the numbers 0 to {}", shown(port),
                                        port.backend->name, limit - 1)});
  }
}

} // namespace

std::vector<PortFinding> check_port(const PortSketch& port) {
  Findings findings;
  check_identity(port, findings);
  if (port.backend != nullptr) {
    check_polling(port, findings);
    check_pins(port, findings);
    check_number(port, findings);
  }
  return findings;
}
