#include "port/errors.h"

GQuark io_control_error_quark() {
  return g_quark_from_static_string("io-control-error-quark");
}
