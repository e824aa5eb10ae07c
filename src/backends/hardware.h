// Port hardware as an object. What ports of one kind can do is a class; a port's own hardware is an
// instance of it, and `PortFunctions` is made from the class.
//
// An instance is made when a port gets its backend, and anew before a closed port is set up again;
// then it is told what the description says, one attribute at a time. It goes when the port is
// closed, unless its class has a `close` that leaves it there, and takes along whatever its members
// own.
#pragma once

#include "port/ioport.h"

#include <memory>
#include <type_traits>
#include <utility>

/// The port's instance, which must be one of this class; a closed port has none.
template <typename Hardware>
[[nodiscard]] Hardware* hardware_of(const IoPort* port) {
  return static_cast<Hardware*>(port->backend_private);
}

// The operations are lambdas, and none of an inline variable: with sanitizers, the compiler cannot
// tell during compilation whether the address of a function that the linker may merge is one.
namespace hardware {

/// The operations of hardware that has nothing to do there.
constexpr PortFunctions idle{
    .setup = [](IoPort* /*port*/, Level /*start*/) { return true; },
    .get_state = [](IoPort* /*port*/) { return Level::Low; },
    .set_state = [](IoPort* /*port*/, Level /*level*/) {},
    .set_watch = [](IoPort* /*port*/) { return true; },
    .set_direction = [](IoPort* /*port*/, Direction /*direction*/) {},
    .parse_data = [](IoPort* /*port*/, const char* /*element*/, const char* /*key*/,
                     const char* /*value*/) {},
};

/// What a static member does for any port, what another one does for the port's instance. Without
/// an instance nothing is done, and the answer is none: low, or no.
template <typename Hardware, auto operation, typename Result, typename... Arguments>
constexpr void fill(Result (*&slot)(IoPort*, Arguments...)) {
  slot = [](IoPort* port, Arguments... arguments) -> Result {
    if constexpr (std::is_member_function_pointer_v<decltype(operation)>) {
      auto* const instance = hardware_of<Hardware>(port);
      return instance != nullptr ? (instance->*operation)(std::move(arguments)...) : Result();
    } else {
      return operation(port, std::move(arguments)...);
    }
  };
}

template <typename Hardware>
constexpr void fill_supervision(PortFunctions& table) {
  if constexpr (requires { &Hardware::is_supervisable; }) {
    fill<Hardware, &Hardware::is_supervisable>(table.is_supervisable);
  }
  if constexpr (requires { &Hardware::set_supervised; }) {
    fill<Hardware, &Hardware::set_supervised>(table.set_supervised);
  }
  if constexpr (requires { &Hardware::get_supervised_ranges; }) {
    fill<Hardware, &Hardware::get_supervised_ranges>(table.get_supervised_ranges);
  }
  if constexpr (requires { &Hardware::set_supervised_ranges; }) {
    fill<Hardware, &Hardware::set_supervised_ranges>(table.set_supervised_ranges);
  }
  if constexpr (requires { &Hardware::get_supervised_readout; }) {
    fill<Hardware, &Hardware::get_supervised_readout>(table.get_supervised_readout);
  }
}

template <typename Hardware>
constexpr void fill_lifetime(PortFunctions& table) {
  if constexpr (requires { &Hardware::setup; }) {
    table.setup = [](IoPort* port, Level start) {
      auto* const data = hardware_of<Hardware>(port);
      g_assert(data != NULL);
      return data->setup(start);
    };
  }
  if constexpr (requires { &Hardware::close; }) {
    fill<Hardware, &Hardware::close>(table.close);
  }
  table.free = [](IoPort* port) {
    const std::unique_ptr<Hardware> instance(hardware_of<Hardware>(port));
    port->backend_private = nullptr;
  };
}

} // namespace hardware

/// The table of a class: a slot is filled if the class has a public member of its name. What every
/// port must have does nothing otherwise, the rest stays empty.
template <typename Hardware>
[[nodiscard]] constexpr PortFunctions table_of() {
  PortFunctions table = hardware::idle;
  hardware::fill_lifetime<Hardware>(table);
  hardware::fill_supervision<Hardware>(table);
  if constexpr (requires { &Hardware::get_state; }) {
    hardware::fill<Hardware, &Hardware::get_state>(table.get_state);
  }
  if constexpr (requires { &Hardware::set_state; }) {
    hardware::fill<Hardware, &Hardware::set_state>(table.set_state);
  }
  if constexpr (requires { &Hardware::set_watch; }) {
    hardware::fill<Hardware, &Hardware::set_watch>(table.set_watch);
  }
  if constexpr (requires { &Hardware::set_direction; }) {
    hardware::fill<Hardware, &Hardware::set_direction>(table.set_direction);
  }
  if constexpr (requires { &Hardware::parse_data; }) {
    hardware::fill<Hardware, &Hardware::parse_data>(table.parse_data);
  }
  return table;
}

template <typename Hardware>
inline constexpr PortFunctions hardware_table = table_of<Hardware>();

/// Gives the port an instance, if it has none, and returns the table of its class.
template <typename Hardware>
[[nodiscard]] const PortFunctions* hardware_attach(IoPort* port) {
  static_assert(port_functions_valid(hardware_table<Hardware>));
  if (port->backend_private == nullptr) {
    if constexpr (std::is_constructible_v<Hardware, IoPort&>) {
      port->backend_private = new Hardware(*port);
    } else {
      port->backend_private = new Hardware();
    }
  }
  return &hardware_table<Hardware>;
}
