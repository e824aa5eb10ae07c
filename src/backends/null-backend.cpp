#include "backends/null-backend.h"

#include "backends/hardware.h"

namespace {

/// All that there is to do is nothing, for which no port needs an instance.
struct NullPort {};
static_assert(port_functions_valid(hardware_table<NullPort>));

} // namespace

const PortFunctions* null_setup_functions(IoPort* /*port*/) {
  return &hardware_table<NullPort>;
}
