// The private record of a backend: made when first needed, gone when the backend frees it.
#pragma once

#include "port/ioport.h"

#include <utility>

/// The port's record, which must be one of this backend's, or nullptr.
template <typename Data>
Data* backend_data(IoPort* port) {
  return static_cast<Data*>(port->backend_private);
}

/// The port's record, allocated when there is none.
template <typename Data>
Data* backend_data_ensure(IoPort* port) {
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
