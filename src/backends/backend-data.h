// The private record of a backend: made when first needed, gone when the backend frees it.
#pragma once

#include "port/ioport.h"

#include <tuple>
#include <utility>

/// The port's record, which must be one of this backend's, or nullptr.
template <typename Data>
[[nodiscard]] Data* backend_data(IoPort* port) {
  return static_cast<Data*>(port->backend_private);
}

/// The port's record, allocated when there is none.
template <typename Data>
[[nodiscard]] Data* backend_data_ensure(IoPort* port) {
  if (port->backend_private == nullptr) {
    port->backend_private = new Data();
  }
  return backend_data<Data>(port);
}

/// Frees the port's record, if any; its members undo what they own.
template <typename Data>
void backend_data_free(IoPort* port) {
  delete static_cast<Data*>(std::exchange(port->backend_private, nullptr));
}

/// The table of a backend whose ports have such a record; only what else is to be done when a port
/// is freed needs a `free` of its own.
///
/// What a table is filled up with is a lambda: with sanitizers, the compiler cannot tell during
/// compilation whether the address of a template's function is one.
template <typename Data>
[[nodiscard]] constexpr PortFunctions backend_table(PortFunctions slots) {
  if (slots.free == nullptr) {
    slots.free = [](IoPort* port) { backend_data_free<Data>(port); };
  }
  return slots;
}

/// Gives the port a record, if it has none, and returns its backend's table.
template <typename Data>
[[nodiscard]] const PortFunctions* backend_attach(IoPort* port, const PortFunctions& functions) {
  std::ignore = backend_data_ensure<Data>(port);
  return &functions;
}
