// Error domain of the port control interface. The model reports in it; the bus names of its codes
// are registered by the service.
#pragma once

#include <glib.h>

/// Codes of `io_control_error_quark`.
enum IoControlError {
  IO_CONTROL_ERROR_GENERIC = 0,
  IO_CONTROL_ERROR_NO_PORT = 1,
  IO_CONTROL_ERROR_BUSY = 2,
  IO_CONTROL_ERROR_NOT_OUTPUT = 3,
  IO_CONTROL_ERROR_NOT_INPUT = 4,
  IO_CONTROL_ERROR_NOT_CONFIGURABLE = 5,
  IO_CONTROL_ERROR_INCORRECT_PORT_TYPE = 6,
};

/// Error domain of port operations ("io-control-error-quark").
GQuark io_control_error_quark();
