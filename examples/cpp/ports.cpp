// Lists the ports of wexd, watches them, pulses an output, and is refused by an input.
//
// Usage: ports OUTPUT INPUT    (numbers of ports)
#include <sdbus-c++/sdbus-c++.h>

#include <cstdint>
#include <cstdlib>
#include <future>
#include <iostream>
#include <string>
#include <vector>

namespace {

constexpr const char* interface = "com.norv.IOControl.State";
constexpr std::int32_t pulse_ms = 200;

using Step = sdbus::Struct<bool, std::int32_t>;
using Property = sdbus::Struct<std::string, bool>;
using Port =
    sdbus::Struct<std::string, std::int32_t, bool, bool, bool, bool, std::vector<Property>>;

const char* word(bool state) {
  return state ? "on" : "off";
}

void list_ports(sdbus::IProxy& state) {
  std::int32_t count = 0;
  std::vector<Port> ports;
  state.callMethod("GetPortProps").onInterface(interface).storeResultsTo(count, ports);
  for (const auto& port : ports) {
    std::cout << port.get<1>() << ' ' << port.get<0>() << ": " << word(port.get<2>()) << std::endl;
  }
}

// The steps run in the daemon; the call returns at once.
void pulse(sdbus::IProxy& state, std::uint32_t output) {
  const std::vector<Step> steps{Step{true, pulse_ms}, Step{false, 1}};
  state.callMethod("StartActionSequence")
      .onInterface(interface)
      .withArguments(output, false, steps);
}

void drive(sdbus::IProxy& state, std::uint32_t port) {
  try {
    state.callMethod("SetState").onInterface(interface).withArguments(port, true);
  } catch (const sdbus::Error& error) {
    std::cout << "port " << port << " refused: " << error.getName() << std::endl;
  }
}

} // namespace

int main(int argc, char* argv[]) {
  if (argc != 3) {
    std::cerr << "Usage: ports OUTPUT INPUT\n";
    return EXIT_FAILURE;
  }
  std::promise<void> over;
  const auto state = sdbus::createProxy(sdbus::createSystemBusConnection(), interface,
                                        "/com/norv/IOControl/State");
  // Signals arrive on a thread of the library.
  state->uponSignal("PortChanged")
      .onInterface(interface)
      .call([](std::int32_t port, bool, bool, bool, bool, bool active, bool) {
        std::cout << "port " << port << " is " << word(active) << std::endl;
      });
  state->uponSignal("ActionSequenceDone").onInterface(interface).call([&](std::int32_t) {
    std::cout << "the pulse is over" << std::endl;
    over.set_value();
  });
  state->finishRegistration();

  list_ports(*state);
  pulse(*state, static_cast<std::uint32_t>(std::stoul(argv[1])));
  over.get_future().wait();
  drive(*state, static_cast<std::uint32_t>(std::stoul(argv[2])));
  return EXIT_SUCCESS;
}
