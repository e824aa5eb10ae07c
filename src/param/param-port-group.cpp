#include "param/param-port-group.h"

#include "param/key-file.h"
#include "platform/log.h"
#include "platform/words.h"
#include "port/ioport.h"

#include <algorithm>
#include <cstdio>

namespace {

enum class Outcome {
  Ok,
  /// The rest of the group is left unread, which counts as success.
  Enough,
  /// `GroupReader::error` says why.
  Failed,
};

// Typed reads from one group; each returns false with `error` set when the key is missing or
// malformed, and leaves its target untouched then.
class GroupReader {
public:
  GroupReader(GKeyFile* file, const char* group) : file_(file), group_(group) {}
  ~GroupReader() { g_clear_error(&error); }
  GroupReader(const GroupReader&) = delete;
  GroupReader& operator=(const GroupReader&) = delete;

  template <typename Flag>
  bool boolean(const char* key, Flag& value) {
    const gboolean read = g_key_file_get_boolean(file_, group_, key, &error);
    if (error != nullptr) {
      return false;
    }
    value = read != FALSE;
    return true;
  }

  // The file holds 64 bits; what does not fit is cut off, which brings negative times back.
  template <typename Number>
  bool number(const char* key, Number& value) {
    const guint64 read = g_key_file_get_uint64(file_, group_, key, &error);
    if (error != nullptr) {
      return false;
    }
    value = static_cast<Number>(read);
    return true;
  }

  bool text(const char* key, std::string& value) {
    return key_file_get_text(file_, group_, key, &value, &error);
  }

  // A text that clients see: what they could not set is not read either.
  bool name(const char* key, std::string& value) {
    std::string read;
    if (!text(key, read)) {
      return false;
    }
    if (read.size() > io_port_text_limit) {
      g_set_error(&error, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_INVALID_VALUE,
                  "Key '%s' of '%s' has more than %" G_GSIZE_FORMAT " bytes", key, group_,
                  io_port_text_limit);
      return false;
    }
    value = std::move(read);
    return true;
  }

  bool has(const char* key) const { return g_key_file_has_key(file_, group_, key, nullptr); }

  GError* error = nullptr;

private:
  GKeyFile* file_;
  const char* group_;
};

Outcome outcome(bool read) {
  return read ? Outcome::Ok : Outcome::Failed;
}

bool read_name(GroupReader& reader, const IoPort* port, const char* key, const char* side,
               OptionalText& name) {
  std::string text;
  if (!reader.name(key, text)) {
    if (g_error_matches(reader.error, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_KEY_NOT_FOUND)) {
      printf("No %s name for port %s:%d\n", side, c_str_or_null(port->name), port->number);
    }
    return false;
  }
  name = text;
  return true;
}

Outcome read_direction(GroupReader& reader, IoPort* port) {
  bool input = true;
  if (!reader.boolean("input", input)) {
    return Outcome::Failed;
  }
  port->direction = input ? Direction::Input : Direction::Output;
  return Outcome::Ok;
}

Outcome read_input_side(GroupReader& reader, IoPort* port) {
  return outcome(read_name(reader, port, "input_name", "input", port->input_name)
                 && reader.boolean("input_activelow", port->activelow_input));
}

// A port without a button type keeps its own; an unknown word ends the reading of the group.
Outcome read_button_type(GroupReader& reader, IoPort* port) {
  if (!reader.has("button_type")) {
    return Outcome::Ok;
  }
  std::string word;
  if (!reader.text("button_type", word)) {
    return Outcome::Failed;
  }
  const auto button = enumerator_of<ButtonType>(button_type_string, word);
  if (!button) {
    return Outcome::Enough;
  }
  port->button_type = *button;
  return Outcome::Ok;
}

bool read_mode(GroupReader& reader, IoPort* port) {
  std::string word;
  if (!reader.text("port_mode", word)) {
    return false;
  }
  port->mode =
      word == port_mode_string[PORT_MODE_BISTABLE] ? PORT_MODE_BISTABLE : PORT_MODE_MONOSTABLE;
  return true;
}

Outcome read_output_side(GroupReader& reader, IoPort* port) {
  if (!read_name(reader, port, "output_name", "output", port->output_name)
      || !reader.boolean("output_activelow", port->activelow_output)) {
    return Outcome::Failed;
  }
  if (const auto button = read_button_type(reader, port); button != Outcome::Ok) {
    return button;
  }
  return outcome(reader.number("pulse_time", port->pulse_time) && read_mode(reader, port)
                 && reader.number("delay_time", port->delay_time));
}

GVariant* parse_ranges(const std::string& text, GError** error) {
  g_autoptr(GVariant) value = g_variant_parse(nullptr, text.c_str(), nullptr, nullptr, error);
  if (value == nullptr) {
    return nullptr;
  }
  if (!g_variant_is_of_type(value, G_VARIANT_TYPE("a(suu)"))) {
    g_set_error(error, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_INVALID_VALUE,
                "Supervised ranges of type '%s', expected 'a(suu)'",
                g_variant_get_type_string(value));
    return nullptr;
  }
  return g_steal_pointer(&value);
}

bool read_ranges(GroupReader& reader, IoPort* port) {
  std::string text;
  if (!reader.text("supervised_input_ranges", text)) {
    return false;
  }
  g_autoptr(GVariant) value = parse_ranges(text, &reader.error);
  if (value == nullptr) {
    return false;
  }
  return io_port_set_supervised_ranges(port, supervised_gvariant2ranges(value), &reader.error);
}

Outcome read_supervision(GroupReader& reader, IoPort* port) {
  // Only the flag: pins, watches and timers follow it when the port is set up and watched.
  return outcome(read_ranges(reader, port) && reader.boolean("supervised_input", port->supervised));
}

Outcome read_usage(GroupReader& reader, IoPort* port) {
  if (!reader.has("usage")) {
    port->usage.clear();
    return Outcome::Ok;
  }
  return outcome(reader.name("usage", port->usage));
}

struct Section {
  bool (*applies)(IoPort* port);
  Outcome (*read)(GroupReader& reader, IoPort* port);
};

bool always(IoPort* /*port*/) {
  return true;
}

constexpr std::array sections{
    Section{.applies = [](IoPort* port) { return port->type == PORT_IO_CTRL; },
            .read = read_direction},
    Section{.applies = [](IoPort* port) { return io_port_has_input_side(port); },
            .read = read_input_side},
    Section{.applies = [](IoPort* port) { return io_port_has_output_side(port); },
            .read = read_output_side},
    Section{.applies = io_port_is_supervisable, .read = read_supervision},
    Section{.applies = always, .read = read_usage},
};

bool report_nameless() {
  fputs("Port does not have a name!\n", stderr);
  return false;
}

// Key files cannot hold every text as a group name, and GLib only complains about its own code.
bool valid_group_name(const std::string& name) {
  return !name.empty() && std::ranges::none_of(name, [](char c) {
    return c == '[' || c == ']' || g_ascii_iscntrl(c);
  });
}

// Collects the lines of a group.
class GroupWriter {
public:
  explicit GroupWriter(std::string name) : group_{.name = std::move(name), .lines = {}} {}

  void word(const char* key, std::string value) {
    group_.lines.push_back({.key = key, .value = std::move(value)});
  }
  void text(const char* key, std::string_view value) { word(key, key_file_raw_text(value)); }
  // A missing key would make the next start lose the rest of the group.
  void name(const char* key, const OptionalText& value) { text(key, value.value_or("")); }
  void flag(const char* key, bool value) { word(key, value ? "true" : "false"); }
  void number(const char* key, guint64 value) { word(key, std::to_string(value)); }

  [[nodiscard]] ParamGroup group() && { return std::move(group_); }

private:
  ParamGroup group_;
};

void write_input_side(GroupWriter& writer, const IoPort* port) {
  writer.name("input_name", port->input_name);
  writer.flag("input_activelow", port->activelow_input);
}

void write_output_side(GroupWriter& writer, const IoPort* port) {
  writer.name("output_name", port->output_name);
  writer.flag("output_activelow", port->activelow_output);
  writer.word("button_type", button_type_string[port->button_type]);
  writer.number("pulse_time", port->pulse_time);
  writer.word("port_mode", port_mode_string[port->mode]);
  // Sign-extended on purpose: a negative time is a very large number in the file.
  writer.number("delay_time", static_cast<guint64>(static_cast<gint64>(port->delay_time)));
}

void write_supervision(GroupWriter& writer, IoPort* port) {
  const SupervisedRanges* const ranges = io_port_get_supervised_ranges(port);
  g_autoptr(GVariant) value = g_variant_ref_sink(
      supervised_ranges2gvariant(ranges != nullptr ? *ranges : SupervisedRanges()));
  g_autofree gchar* text = g_variant_print(value, TRUE);
  writer.text("supervised_input_ranges", text);
  writer.flag("supervised_input", port->supervised);
}

} // namespace

bool param_group_read(GKeyFile* file, IoPort* port) {
  if (!port->name) {
    return report_nameless();
  }
  const char* const group = port->name->c_str();
  if (!g_key_file_has_group(file, group)) {
    return false;
  }
  GroupReader reader(file, group);
  for (const auto& section : sections) {
    if (!section.applies(port)) {
      continue;
    }
    switch (section.read(reader, port)) {
    case Outcome::Ok:
      break;
    case Outcome::Enough:
      return true;
    case Outcome::Failed:
      fprintf(stderr, "Error parsing param file: %s\n",
              reader.error != nullptr ? reader.error->message : "value refused by the port");
      return false;
    }
  }
  return true;
}

std::optional<ParamGroup> param_group_of(IoPort* port) {
  if (!port->name) {
    report_nameless();
    return std::nullopt;
  }
  if (!valid_group_name(*port->name)) {
    g_warning("%sSettings of port %d are not saved: its name '%s' cannot head a group of the key "
              "file",
              log_prefix, port->number, port->name->c_str());
    return std::nullopt;
  }
  GroupWriter writer(*port->name);
  if (port->type == PORT_IO_CTRL) {
    writer.flag("input", port->direction == Direction::Input);
  }
  if (io_port_has_input_side(port)) {
    write_input_side(writer, port);
  }
  if (io_port_has_output_side(port)) {
    write_output_side(writer, port);
  }
  if (io_port_is_supervisable(port)) {
    write_supervision(writer, port);
  }
  writer.text("usage", port->usage);
  return std::move(writer).group();
}

std::string param_group_text(const ParamGroup& group) {
  std::string text = "[" + group.name + "]\n";
  for (const auto& line : group.lines) {
    text.append(line.key).append("=").append(line.value).append("\n");
  }
  return text;
}

void param_group_store(GKeyFile* file, const ParamGroup& group) {
  for (const auto& line : group.lines) {
    g_key_file_set_value(file, group.name.c_str(), line.key, line.value.c_str());
  }
}

bool param_group_write(GKeyFile* file, IoPort* port) {
  const auto group = param_group_of(port);
  if (group) {
    param_group_store(file, *group);
  }
  return group.has_value();
}
