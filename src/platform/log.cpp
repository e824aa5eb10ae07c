// Stand-in for the device's log library: a GLib log writer that prints to standard output.
#include "platform/log.h"

#include <array>
#include <cstdio>
#include <string>
#include <string_view>

namespace {

struct LevelName {
  GLogLevelFlags level;
  const char* name;
};

constexpr std::array<LevelName, 7> level_names{{
    {.level = G_LOG_LEVEL_ERROR, .name = "ERROR"},
    {.level = G_LOG_LEVEL_CRITICAL, .name = "CRITICAL"},
    {.level = G_LOG_LEVEL_WARNING, .name = "WARNING"},
    {.level = G_LOG_LEVEL_MESSAGE, .name = "MESSAGE"},
    {.level = G_LOG_LEVEL_INFO, .name = "INFO"},
    {.level = G_LOG_LEVEL_DEBUG, .name = "DEBUG"},
    {.level = log_level_user, .name = "USER"},
}};

const char* level_name(GLogLevelFlags level) {
  for (const auto& entry : level_names) {
    if ((level & entry.level) != 0) {
      return entry.name;
    }
  }
  return "USER";
}

std::string_view field(std::string_view key, const GLogField* fields, gsize n_fields) {
  for (gsize i = 0; i < n_fields; i++) {
    if (key == fields[i].key) {
      const auto* text = static_cast<const char*>(fields[i].value);
      return fields[i].length < 0 ? std::string_view(text)
                                  : std::string_view(text, static_cast<gsize>(fields[i].length));
    }
  }
  return {};
}

GLogWriterOutput write_line(GLogLevelFlags level, const GLogField* fields, gsize n_fields,
                            gpointer /*user_data*/) {
  std::string line(field("GLIB_DOMAIN", fields, n_fields));
  if (!line.empty()) {
    line += '-';
  }
  line += level_name(level);
  line += ": ";

  auto message = field("MESSAGE", fields, n_fields);
  while (message.ends_with('\n')) {
    message.remove_suffix(1);
  }
  for (const char c : message) {
    // A line break inside a message would let outside text forge log lines.
    line += c == '\n' ? ' ' : c;
  }
  line += '\n';

  // One call per line: stdio locks the stream for it, so threads never mix their lines.
  fwrite(line.data(), 1, line.size(), stdout);
  fflush(stdout);
  return G_LOG_WRITER_HANDLED;
}

} // namespace

void nv_log_stdout() {
  // Lines printed directly must not overtake, or lag behind, those that come through the log.
  setvbuf(stdout, nullptr, _IOLBF, 0);
  g_log_set_writer_func(write_line, nullptr, nullptr);
}
