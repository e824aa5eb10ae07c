// Groups are named after the older service's parameter tree: IOPort.I<number>, with ".Input" or
// ".Output" behind it for one side of the port.
#include "param/sedrin-import.h"

#include "param/key-file.h"
#include "platform/file-sync.h"
#include "platform/log.h"
#include "platform/numbers.h"
#include "platform/regular-file.h"
#include "platform/words.h"
#include "port/errors.h"
#include "port/ioport-list.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <span>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

namespace {

/// Where the port number starts in a group's name.
constexpr gsize number_offset = 8;

enum class Step {
  NextKey,
  /// The rest of the group is not read.
  NextGroup,
  /// The rest of the file is not read.
  Stop,
};

struct Import {
  const char* path;
  GKeyFile* file;
  GError** error;
  bool failed = false;

  // The first error is the one that is reported.
  void fail(const std::string& message) {
    if (!failed) {
      g_set_error_literal(error, io_control_error_quark(), IO_CONTROL_ERROR_GENERIC,
                          message.c_str());
    }
    failed = true;
  }
};

// Why a value was not taken, or nothing.
enum class Taken { Yes, Refused };

template <PortSide side>
Taken take_activelow(IoPort* port, const char* value) {
  const auto activelow = find_word(activelow_words, value);
  if (!activelow) {
    return Taken::Refused;
  }
  std::ignore = io_port_set_activelow(port, *activelow, side);
  return Taken::Yes;
}

// A value in double quotes comes without them.
template <bool (*set_name)(IoPort*, const char*)>
Taken take_name(IoPort* port, const char* value) {
  std::string_view name = value;
  if (name.starts_with('"')) {
    name.remove_prefix(1);
    name.remove_suffix(name.empty() ? 0 : 1);
  }
  if (name.size() > io_port_text_limit || !g_utf8_validate_len(name.data(), name.size(), nullptr)) {
    return Taken::Refused;
  }
  std::ignore = set_name(port, std::string(name).c_str());
  return Taken::Yes;
}

// Text that does not start with a digit is ignored.
template <auto member>
Taken take_number(IoPort* port, const char* value) {
  if (g_ascii_isdigit(*value)) {
    auto& number = port->*member;
    number = unsigned_of<std::remove_reference_t<decltype(number)>>(value);
  }
  return Taken::Yes;
}

Taken take_button(IoPort* port, const char* value) {
  if (const auto button = enumerator_of<ButtonType>(button_type_string, value)) {
    port->button_type = *button;
  }
  return Taken::Yes;
}

Taken take_mode(IoPort* port, const char* value) {
  std::ignore = io_port_set_mode(port, g_str_equal(value, "bistable") ? PORT_MODE_BISTABLE
                                                                      : PORT_MODE_MONOSTABLE);
  return Taken::Yes;
}

struct KeyRow {
  const char* key;
  Taken (*take)(IoPort* port, const char* value);
  /// Told when the value is refused.
  const char* failure;
};

constexpr const char* unknown_output_key = "Failed to read Output parameter";

constexpr std::array input_keys{
    KeyRow{"Name", take_name<io_port_set_input_name>, "Failed to read Name parameter"},
    KeyRow{"Trig", take_activelow<PortSide::Input>, "Failed to read Trig parameter"},
};

constexpr std::array output_keys{
    KeyRow{"Name", take_name<io_port_set_output_name>, unknown_output_key},
    KeyRow{"Active", take_activelow<PortSide::Output>, "Failed to read Active parameter"},
    KeyRow{"Button", take_button, nullptr},
    KeyRow{"PulseTime", take_number<&IoPort::pulse_time>, nullptr},
    KeyRow{"DelayTime", take_number<&IoPort::delay_time>, nullptr},
    KeyRow{"Mode", take_mode, nullptr},
};

Step take_key(Import& import, IoPort* port, std::span<const KeyRow> rows, const char* key,
              const char* value, const std::string& unknown) {
  const auto row = std::ranges::find_if(
      rows, [key](const KeyRow& entry) { return g_str_equal(entry.key, key); });
  if (row == rows.end()) {
    import.fail(unknown);
    return Step::NextGroup;
  }
  if (row->take(port, value) == Taken::Refused) {
    import.fail(row->failure);
    return Step::NextGroup;
  }
  return Step::NextKey;
}

std::optional<gint> port_number(std::string_view group) {
  if (group.size() <= number_offset) {
    return std::nullopt;
  }
  const char* const digits = group.data() + number_offset;
  gchar* end = nullptr;
  const gint64 number = g_ascii_strtoll(digits, &end, 10);
  if (end == digits || !std::in_range<gint>(number)) {
    return std::nullopt;
  }
  return static_cast<gint>(number);
}

Step take_input_key(Import& import, const char* group, const char* key, const char* value) {
  const auto number = port_number(group);
  if (!number) {
    import.fail("Failed to parse port number");
    return Step::NextGroup;
  }
  const IoPortRef port = io_port_list_get_port(*number);
  if (port == nullptr) {
    fprintf(stderr, "No port %d to write sedrin data to.\n", *number);
    import.failed = true;
    return Step::Stop;
  }
  return take_key(import, port.get(), input_keys, key, value,
                  std::string("Failed to read ") + key + " parameter");
}

Step take_output_key(Import& import, const char* group, const char* key, const char* value) {
  const auto number = port_number(group);
  if (!number) {
    import.fail("Failed to parse port number");
    return Step::NextGroup;
  }
  const IoPortRef port = io_port_list_get_port(*number);
  if (port == nullptr) {
    return Step::NextGroup;
  }
  return take_key(import, port.get(), output_keys, key, value, unknown_output_key);
}

Step take_port_key(Import& import, const char* group, const char* key, const char* value) {
  const auto number = port_number(group);
  const IoPortRef port(number ? io_port_list_get_port(*number) : nullptr);
  if (port == nullptr || port->type != PORT_IO_CTRL || !g_str_equal(key, "Direction")) {
    return Step::NextKey;
  }
  const auto direction = find_word(direction_words, value);
  if (!direction) {
    import.fail("Failed to read Direction parameter");
    return Step::NextGroup;
  }
  port->direction = *direction;
  return Step::NextKey;
}

using TakeKey = Step (*)(Import& import, const char* group, const char* key, const char* value);

// How the keys of a group are taken; nullptr: not at all.
TakeKey kind_of(std::string_view group) {
  if (group == "Input" || group == "Output") {
    return nullptr;
  }
  if (group.ends_with("Input")) {
    return take_input_key;
  }
  if (group.ends_with("Output")) {
    return take_output_key;
  }
  return group.starts_with("IOPort.I") ? take_port_key : nullptr;
}

Step take_group(Import& import, const char* group) {
  g_auto(GStrv) keys = g_key_file_get_keys(import.file, group, nullptr, nullptr);
  if (keys == nullptr) {
    g_warning("%sError parsing sedrin file %s", log_prefix, import.path);
    import.failed = true;
    return Step::Stop;
  }
  const TakeKey take = kind_of(group);
  for (gchar** key = keys; take != nullptr && *key != nullptr; key++) {
    g_autofree gchar* value = g_key_file_get_value(import.file, group, *key, nullptr);
    const Step step = take(import, group, *key, value != nullptr ? value : "");
    if (step != Step::NextKey) {
      return step;
    }
  }
  return Step::NextGroup;
}

// Everyone may write to the folder of temporary files: only what the older service, which runs as
// we do at the start, has put there itself is taken.
bool read_own_file(const char* path, std::string* text, GError** error) {
  struct stat status {};
  const UniqueFd fd = regular_file_open(AT_FDCWD, path, Links::Refused, &status, error);
  if (!fd) {
    return false;
  }
  if (status.st_uid != geteuid()) {
    g_set_error(error, G_FILE_ERROR, G_FILE_ERROR_PERM, "'%s' belongs to another user", path);
    return false;
  }
  return regular_file_read(fd.get(), path, text, error);
}

KeyFilePtr load_import(const char* path) {
  std::string text;
  g_autoptr(GError) error = nullptr;
  if (!read_own_file(path, &text, &error)) {
    g_warning("%sNot importing settings: %s", log_prefix, error->message);
    return nullptr;
  }
  return key_file_parse(text, nullptr);
}

bool take_groups(Import& import) {
  g_auto(GStrv) groups = g_key_file_get_groups(import.file, nullptr);
  for (gchar** group = groups; *group != nullptr; group++) {
    if (take_group(import, *group) == Step::Stop) {
      break;
    }
  }
  return !import.failed;
}

bool is_missing(const char* path) {
  struct stat status {};
  return lstat(path, &status) != 0;
}

} // namespace

bool read_sedrin_parameters(const char* path, GError** error) {
  if (is_missing(path)) {
    g_warning("%sUnable to read from sedrin file", log_prefix);
    return true;
  }
  const KeyFilePtr file = load_import(path);
  if (file == nullptr) {
    g_set_error_literal(error, io_control_error_quark(), IO_CONTROL_ERROR_GENERIC,
                        "Failed to load sedrin file");
    return false;
  }
  Import import{.path = path, .file = file.get(), .error = error};
  return take_groups(import);
}

bool sedrin_take_file(const char* path) {
  const KeyFilePtr file = is_missing(path) ? nullptr : load_import(path);
  if (file == nullptr) {
    return false;
  }
  Import import{.path = path, .file = file.get(), .error = nullptr};
  take_groups(import);
  return true;
}

void param_upgrade(const char* source, const char* target, GError** error) {
  constexpr int write_line = 755;
  constexpr int save_line = 762;
  const KeyFilePtr source_file = key_file_load(source, nullptr);
  if (source_file == nullptr) {
    g_set_error(error, io_control_error_quark(), IO_CONTROL_ERROR_GENERIC,
                "Unable to open input file: %s", source);
    return;
  }
  const KeyFilePtr target_file = key_file_load(target, nullptr);
  if (target_file == nullptr) {
    // The source is named here too: it is what the caller asked to have merged.
    g_set_error(error, io_control_error_quark(), IO_CONTROL_ERROR_GENERIC,
                "Unable to open output file: %s", source);
    return;
  }
  key_file_copy(source_file.get(), target_file.get());

  g_autoptr(GError) write_error = nullptr;
  if (!file_set_contents_synced(target, key_file_to_text(target_file.get()), &write_error)) {
    g_log(G_LOG_DOMAIN, log_level_user, "%s%s@%d: failed to save key file: %s, error: %s\n",
          log_prefix, __func__, write_line, target, write_error->message);
    g_log(G_LOG_DOMAIN, log_level_user, "%s%s@%d: save operation failed! [%s]\n", log_prefix,
          __func__, save_line, target);
  }
}
