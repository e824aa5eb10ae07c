#include "backends/sysfs-backend.h"

#include "backends/backend-data.h"
#include "platform/handles.h"
#include "platform/log.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdlib>

namespace {

struct SysfsPortData {
  OptionalText path;
  UniqueFd fd;
  guint timeout_ms = 0;
  gint value = 0;
  SourceId poll_source;
  bool clear_flag = false;
  bool inverted = false;
};

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
  const auto number = static_cast<gint>(strtol(text, nullptr, 10));
  if (errno != 0) {
    g_warning("%sUnexpected format when parsing input when reading: %s! : %s", log_prefix,
              c_str_or_null(data->path), g_strerror(errno));
  }
  return number;
}

gint read_value(const SysfsPortData* data) {
  if (!data->fd) {
    return data->inverted ? 1 : 0;
  }
  std::array<char, max_text + 1> text{};
  if (read(data->fd.get(), text.data(), max_text) < 0) {
    // What could not be read is inactive, whatever the inversion.
    g_warning("%sError failed to read %s! : %s", log_prefix, c_str_or_null(data->path),
              g_strerror(errno));
    return 0;
  }
  rewind_file(data);

  const gint number = parse_number(data, text.data());
  if (number == 1) {
    if (data->clear_flag) {
      clear_latched_flag(data);
    }
  } else if (number != 0) {
    g_warning("%sUnexpected value: %d when reading: %s", log_prefix, number,
              c_str_or_null(data->path));
  }
  const bool set = number == 1;
  return set != data->inverted ? 1 : 0;
}

gboolean sysfs_poll(gpointer user_data) {
  auto* port = static_cast<IoPort*>(user_data);
  auto* data = backend_data<SysfsPortData>(port);
  const gint before = data->value;
  data->value = read_value(data);
  const bool state = io_port_get_state(port);
  if (data->value != before) {
    io_port_trigger(port, state ? 1 : 0);
  }
  return G_SOURCE_CONTINUE;
}

gboolean sysfs_port_setup(IoPort* port, gboolean /*activelow_output*/) {
  auto* data = backend_data<SysfsPortData>(port);
  g_assert(data != NULL);
  g_assert(port->type == PORT_INPUT);

  const char* const path = data->path ? data->path->c_str() : "";
  data->fd.reset(open(path, (data->clear_flag ? O_RDWR : O_RDONLY) | O_CLOEXEC));
  if (data->fd) {
    return TRUE;
  }
  if (!port->optional) {
    g_warning("%sFailed to open %s: %s", log_prefix, path, g_strerror(errno));
  }
  return FALSE;
}

guint sysfs_port_get_state(IoPort* port) {
  const auto* data = backend_data<SysfsPortData>(port);
  return data != nullptr && data->value > 0 ? 1 : 0;
}

void sysfs_port_set_state(IoPort* /*port*/, gint /*state*/) {}

gboolean sysfs_port_set_watch(IoPort* port) {
  auto* data = backend_data_ensure<SysfsPortData>(port);
  if (!data->poll_source) {
    data->poll_source.reset(g_timeout_add(data->timeout_ms, sysfs_poll, port));
  }
  return TRUE;
}

void sysfs_port_set_direction(IoPort* /*port*/, gboolean /*input*/) {}

void sysfs_port_parse_data(IoPort* port, const char* element, const char* key, const char* value) {
  auto* data = backend_data_ensure<SysfsPortData>(port);
  if (!g_str_equal(element, "device")) {
    g_warning("%sCould not parse backend data!\n", log_prefix);
    return;
  }
  if (g_str_equal(key, "path")) {
    data->path = value;
  } else if (g_str_equal(key, "timeout")) {
    data->timeout_ms = static_cast<guint>(g_ascii_strtoll(value, nullptr, 0));
  } else if (g_str_equal(key, "clear_flag")) {
    data->clear_flag = g_str_equal(value, "true");
  } else if (g_str_equal(key, "inverted")) {
    data->inverted = g_str_equal(value, "true");
  }
}

void sysfs_port_free(IoPort* port) {
  backend_data_free<SysfsPortData>(port);
}

constexpr PortFunctions functions{
    .setup = sysfs_port_setup,
    .get_state = sysfs_port_get_state,
    .set_state = sysfs_port_set_state,
    .set_watch = sysfs_port_set_watch,
    .set_direction = sysfs_port_set_direction,
    .parse_data = sysfs_port_parse_data,
    .free = sysfs_port_free,
};
static_assert(port_functions_valid(functions));

} // namespace

const PortFunctions* sysfs_setup_functions(IoPort* port) {
  backend_data_ensure<SysfsPortData>(port);
  return &functions;
}
