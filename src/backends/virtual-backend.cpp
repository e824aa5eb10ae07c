#include "backends/virtual-backend.h"

#include "backends/hardware.h"

namespace {

class VirtualPort {
public:
  [[nodiscard]] Level get_state() const { return level_; }
  void set_state(Level level) { level_ = level; }

private:
  // Set by action-sequence threads, read by the main thread.
  std::atomic<Level> level_{Level::Low};
};

} // namespace

const PortFunctions* virtual_setup_functions(IoPort* port) {
  return hardware_attach<VirtualPort>(port);
}
