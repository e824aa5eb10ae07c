#include "backends/sysfs-backend.h"

#include "backends/description-keys.h"
#include "backends/hardware.h"
#include "backends/input-poll.h"
#include "platform/handles.h"
#include "platform/log.h"
#include "platform/numbers.h"

#include <fcntl.h>

#include <cerrno>
#include <utility>

namespace {

constexpr gsize max_text = 63;

enum class Flag { Clear, Leave };

class SysfsPort final : public InputPoll {
public:
  using InputPoll::InputPoll;

  bool setup(Level start);
  [[nodiscard]] Level get_state() const { return level_of(value_); }
  void parse_data(const char* element, const char* key, const char* value);

private:
  bool refresh() override { return take_value(Flag::Clear); }
  bool look() override { return take_value(Flag::Leave); }
  bool take_value(Flag flag);
  [[nodiscard]] bool read_value(Flag flag) const;
  [[nodiscard]] gint parse_number(const char* text) const;
  void clear_latched_flag() const;
  void rewind_file() const { lseek(fd_.get(), 0, SEEK_SET); }

  OptionalText path_;
  UniqueFd fd_;
  bool value_ = false;
  bool clear_flag_ = false;
  bool inverted_ = false;
};

void SysfsPort::parse_data(const char* element, const char* key, const char* value) {
  static constexpr std::array device_keys{
      DescriptionKey<SysfsPort>{"path", take_text<&SysfsPort::path_>},
      DescriptionKey<SysfsPort>{"timeout", take_number<&SysfsPort::interval_ms_, 0>},
      DescriptionKey<SysfsPort>{"clear_flag", take_switch<&SysfsPort::clear_flag_>},
      DescriptionKey<SysfsPort>{"inverted", take_switch<&SysfsPort::inverted_>},
  };
  static_assert(same_keys(sysfs_device_attributes, device_keys));
  if (!g_str_equal(element, "device")) {
    g_warning("%sCould not parse backend data!\n", log_prefix);
    return;
  }
  take_described(device_keys, *this, key, value);
}

void SysfsPort::clear_latched_flag() const {
  if (write(fd_.get(), "0", 1) != 1) {
    g_warning("%sSysfs write failed: %s", log_prefix, g_strerror(errno));
  }
  rewind_file();
}

gint SysfsPort::parse_number(const char* text) const {
  errno = 0;
  const auto number = number_of<gint>(text);
  if (errno != 0) {
    g_warning("%sUnexpected format when parsing input when reading: %s! : %s", log_prefix,
              c_str_or_null(path_), g_strerror(errno));
  }
  return number;
}

bool SysfsPort::read_value(Flag flag) const {
  if (!fd_) {
    return inverted_;
  }
  std::array<char, max_text + 1> text{};
  if (read(fd_.get(), text.data(), max_text) < 0) {
    // What could not be read is inactive, whatever the inversion.
    g_warning("%sError failed to read %s! : %s", log_prefix, c_str_or_null(path_),
              g_strerror(errno));
    return false;
  }
  rewind_file();

  const gint number = parse_number(text.data());
  if (number == 1) {
    if (clear_flag_ && flag == Flag::Clear) {
      clear_latched_flag();
    }
  } else if (number != 0) {
    g_warning("%sUnexpected value: %d when reading: %s", log_prefix, number, c_str_or_null(path_));
  }
  return (number == 1) != inverted_;
}

bool SysfsPort::take_value(Flag flag) {
  const bool before = std::exchange(value_, read_value(flag));
  return value_ != before;
}

// The fatal message names the step as operators know it.
void sysfs_port_setup(const IoPort* port) {
  g_assert(port->type == PORT_INPUT);
}

bool SysfsPort::setup(Level /*start*/) {
  sysfs_port_setup(&port_);

  const char* const path = path_ ? path_->c_str() : "";
  fd_.reset(open(path, (clear_flag_ ? O_RDWR : O_RDONLY) | O_CLOEXEC));
  if (fd_) {
    return true;
  }
  if (!port_.optional) {
    g_warning("%sFailed to open %s: %s", log_prefix, path, g_strerror(errno));
  }
  return false;
}

} // namespace

const PortFunctions* sysfs_setup_functions(IoPort* port) {
  return hardware_attach<SysfsPort>(port);
}
