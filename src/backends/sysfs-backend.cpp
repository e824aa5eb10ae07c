#include "backends/sysfs-backend.h"

#include "backends/backend-data.h"
#include "backends/description-keys.h"
#include "backends/empty-slots.h"
#include "backends/input-poll.h"
#include "platform/handles.h"
#include "platform/log.h"
#include "platform/numbers.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdlib>
#include <utility>

namespace {

struct SysfsPortData {
  OptionalText path;
  UniqueFd fd;
  bool value = false;
  bool clear_flag = false;
  bool inverted = false;
  InputPoll poll;

  bool refresh();
  bool look();
};

constexpr std::array device_keys{
    DescriptionKey<SysfsPortData>{"path", take_text<&SysfsPortData::path>},
    DescriptionKey<SysfsPortData>{"timeout", take_interval<SysfsPortData>},
    DescriptionKey<SysfsPortData>{"clear_flag", take_switch<&SysfsPortData::clear_flag>},
    DescriptionKey<SysfsPortData>{"inverted", take_switch<&SysfsPortData::inverted>},
};
static_assert(same_keys(sysfs_device_attributes, device_keys));

void sysfs_port_parse_data(IoPort* port, const char* element, const char* key, const char* value) {
  auto* data = backend_data_ensure<SysfsPortData>(port);
  if (!g_str_equal(element, "device")) {
    g_warning("%sCould not parse backend data!\n", log_prefix);
    return;
  }
  take_described(device_keys, *data, key, value);
}

constexpr gsize max_text = 63;

void rewind_file(const SysfsPortData* data) {
  lseek(data->fd.get(), 0, SEEK_SET);
}

void clear_latched_flag(const SysfsPortData* data) {
  if (write(data->fd.get(), "0", 1) != 1) {
    g_warning("%sSysfs write failed: %s", log_prefix, g_strerror(errno));
  }
  rewind_file(data);
}

gint parse_number(const SysfsPortData* data, const char* text) {
  errno = 0;
  const auto number = number_of<gint>(text);
  if (errno != 0) {
    g_warning("%sUnexpected format when parsing input when reading: %s! : %s", log_prefix,
              c_str_or_null(data->path), g_strerror(errno));
  }
  return number;
}

enum class Flag { Clear, Leave };

bool read_value(const SysfsPortData* data, Flag flag) {
  if (!data->fd) {
    return data->inverted;
  }
  std::array<char, max_text + 1> text{};
  if (read(data->fd.get(), text.data(), max_text) < 0) {
    // What could not be read is inactive, whatever the inversion.
    g_warning("%sError failed to read %s! : %s", log_prefix, c_str_or_null(data->path),
              g_strerror(errno));
    return false;
  }
  rewind_file(data);

  const gint number = parse_number(data, text.data());
  if (number == 1) {
    if (data->clear_flag && flag == Flag::Clear) {
      clear_latched_flag(data);
    }
  } else if (number != 0) {
    g_warning("%sUnexpected value: %d when reading: %s", log_prefix, number,
              c_str_or_null(data->path));
  }
  return (number == 1) != data->inverted;
}

bool SysfsPortData::refresh() {
  const bool before = std::exchange(value, read_value(this, Flag::Clear));
  return value != before;
}

bool SysfsPortData::look() {
  const bool before = std::exchange(value, read_value(this, Flag::Leave));
  return value != before;
}

bool sysfs_port_setup(IoPort* port, Level /*start*/) {
  auto* data = backend_data<SysfsPortData>(port);
  g_assert(data != NULL);
  g_assert(port->type == PORT_INPUT);

  const char* const path = data->path ? data->path->c_str() : "";
  data->fd.reset(open(path, (data->clear_flag ? O_RDWR : O_RDONLY) | O_CLOEXEC));
  if (data->fd) {
    return true;
  }
  if (!port->optional) {
    g_warning("%sFailed to open %s: %s", log_prefix, path, g_strerror(errno));
  }
  return false;
}

Level sysfs_port_get_state(IoPort* port) {
  const auto* data = backend_data<SysfsPortData>(port);
  return level_of(data != nullptr && data->value);
}

constexpr PortFunctions functions = input_poll_table<SysfsPortData>({
    .setup = sysfs_port_setup,
    .get_state = sysfs_port_get_state,
    .set_state = ignore_state,
    .set_direction = ignore_direction,
    .parse_data = sysfs_port_parse_data,
});
static_assert(port_functions_valid(functions));

} // namespace

const PortFunctions* sysfs_setup_functions(IoPort* port) {
  return backend_attach<SysfsPortData>(port, functions);
}
