#include "backends/check-backend.h"

#include "backends/hardware.h"

namespace {

class CheckPort {
public:
  [[nodiscard]] bool setup(Level /*start*/) const { return !told_to_fail_; }
  [[nodiscard]] Level get_state() const { return level_; }
  void set_state(Level level) { level_ = level; }

  void parse_data(const char* /*element*/, const char* key, const char* value) {
    told_to_fail_ = told_to_fail_ || (g_str_equal(key, "setup") && g_str_equal(value, "fail"));
  }

private:
  // Set by action-sequence threads, read by the main thread.
  std::atomic<Level> level_{Level::Low};
  bool told_to_fail_ = false;
};

} // namespace

const PortFunctions* check_setup_functions(IoPort* port) {
  return hardware_attach<CheckPort>(port);
}
