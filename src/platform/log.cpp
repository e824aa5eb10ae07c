// Stand-in for the device's log library: a GLib log writer that prints to standard output.
#include "platform/log.h"

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <string>
#include <string_view>
#include <utility>

namespace {

struct Level {
  GLogLevelFlags level;
  const char* name;
  /// As the journal counts; the order of the levels is kept.
  int priority;
};

constexpr Level user_level{.level = log_level_user, .name = "USER", .priority = LOG_NOTICE};
constexpr std::array levels{
    Level{.level = G_LOG_LEVEL_ERROR, .name = "ERROR", .priority = LOG_CRIT},
    Level{.level = G_LOG_LEVEL_CRITICAL, .name = "CRITICAL", .priority = LOG_ERR},
    Level{.level = G_LOG_LEVEL_WARNING, .name = "WARNING", .priority = LOG_WARNING},
    Level{.level = G_LOG_LEVEL_MESSAGE, .name = "MESSAGE", .priority = LOG_NOTICE},
    Level{.level = G_LOG_LEVEL_INFO, .name = "INFO", .priority = LOG_INFO},
    Level{.level = G_LOG_LEVEL_DEBUG, .name = "DEBUG", .priority = LOG_DEBUG},
};

bool output_is_journal = false;

/// Who hears what this thread logs, and what is added to it.
struct OfThread {
  FirstWarning* listener = nullptr;
  LogPlace* place = nullptr;
  std::string remark;
};
thread_local OfThread of_thread;

const Level& level_of(GLogLevelFlags flags) {
  for (const auto& entry : levels) {
    if ((flags & entry.level) != 0) {
      return entry;
    }
  }
  return user_level;
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

bool for_developers_of_glib(const Level& level, std::string_view domain) {
  return level.level == G_LOG_LEVEL_DEBUG && domain.starts_with("GLib")
         && g_log_writer_default_would_drop(level.level, std::string(domain).c_str());
}

void print_line(const Level& level, std::string_view domain, std::string_view message) {
  std::string line = output_is_journal ? priority_mark(level.priority) : "";
  line += domain;
  if (!domain.empty()) {
    line += '-';
  }
  line += level.name;
  line += ": ";
  for (const char c : message) {
    // A line break inside a message would let outside text forge log lines.
    line += c == '\n' ? ' ' : c;
  }
  line += '\n';

  // One call per line: stdio locks the stream for it, so threads never mix their lines.
  fwrite(line.data(), 1, line.size(), stdout);
  fflush(stdout);
}

GLogWriterOutput write_line(GLogLevelFlags flags, const GLogField* fields, gsize n_fields,
                            gpointer /*user_data*/) {
  const Level& level = level_of(flags);
  const auto domain = field("GLIB_DOMAIN", fields, n_fields);
  if (for_developers_of_glib(level, domain)) {
    return G_LOG_WRITER_HANDLED;
  }
  auto message = field("MESSAGE", fields, n_fields);
  while (message.ends_with('\n')) {
    message.remove_suffix(1);
  }
  if (of_thread.listener != nullptr) {
    of_thread.listener->hear(level.level, message);
  }
  print_line(level, domain, message);
  const std::string where =
      of_thread.place != nullptr ? of_thread.place->after(level.level, message) : "";
  for (const auto& follows : {std::exchange(of_thread.remark, {}), where}) {
    if (!follows.empty()) {
      print_line(level_of(G_LOG_LEVEL_MESSAGE), "", follows);
    }
  }
  return G_LOG_WRITER_HANDLED;
}

// An assertion that fails says so on either stream.
int priority_of_line(std::string_view line) {
  return line.starts_with("ERROR:") || line.starts_with("Bail out!") ? LOG_CRIT : LOG_WARNING;
}

// Marks the lines of a text that is not the log's; `within_line` is kept from one text to the next.
std::string marked(std::string_view text, bool& within_line) {
  std::string lines;
  while (!text.empty()) {
    lines += within_line ? "" : priority_mark(priority_of_line(text));
    const auto end = text.find('\n');
    within_line = end == std::string_view::npos;
    const auto line = text.substr(0, within_line ? end : end + 1);
    lines += line;
    text.remove_prefix(line.size());
  }
  return lines;
}

void write_fully(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written < 0 && errno != EINTR) {
      return;
    }
    text.remove_prefix(written > 0 ? static_cast<gsize>(written) : 0);
  }
}

// Called with the stream's lock held.
ssize_t write_errors(void* /*cookie*/, const char* text, size_t length) {
  static bool within_line = false;
  write_fully(STDERR_FILENO, marked({text, length}, within_line));
  return static_cast<ssize_t>(length);
}

// What GLib prints on standard output, past the log.
void print_marked(const gchar* text) {
  bool within_line = false;
  const std::string lines = marked(text, within_line);
  fwrite(lines.data(), 1, lines.size(), stdout);
  fflush(stdout);
}

// Whoever prints on standard error, GLib included, need not know where it goes.
void mark_standard_error() {
  constexpr cookie_io_functions_t functions{
      .read = nullptr, .write = write_errors, .seek = nullptr, .close = nullptr};
  if (FILE* const marked = fopencookie(nullptr, "w", functions)) {
    setvbuf(marked, nullptr, _IONBF, 0);
    stderr = marked;
  }
}

} // namespace

FirstWarning::FirstWarning() : outer_(std::exchange(of_thread.listener, this)) {}

FirstWarning::~FirstWarning() {
  of_thread.listener = outer_;
}

// A critical message is worse than a warning, and tells of a refused call.
void FirstWarning::hear(GLogLevelFlags level, std::string_view message) {
  constexpr int wanted = G_LOG_LEVEL_WARNING | G_LOG_LEVEL_CRITICAL;
  if ((level & wanted) != 0 && text_.empty()) {
    text_ = message;
  }
}

LogPlace::LogPlace(Tell tell, const void* subject)
    : outer_(std::exchange(of_thread.place, this)), tell_(tell), subject_(subject) {}

LogPlace::~LogPlace() {
  of_thread.place = outer_;
}

std::string LogPlace::after(GLogLevelFlags level, std::string_view message) {
  constexpr int complaints = G_LOG_LEVEL_WARNING | G_LOG_LEVEL_CRITICAL | log_level_user;
  if ((level & complaints) == 0 || std::exchange(told_, true)) {
    return {};
  }
  std::string text = tell_(subject_);
  const bool is_known = message.find(text) != std::string_view::npos;
  return is_known ? std::string() : text;
}

void log_remark(std::string text) {
  of_thread.remark = std::move(text);
}

std::string priority_mark(int priority) {
  return '<' + std::to_string(priority) + '>';
}

// The journal names its end of a stream; ours may have been put in the place of it.
bool stream_is_journal(int fd) {
  const char* const told = g_getenv("JOURNAL_STREAM");
  struct stat status {};
  return told != nullptr && fstat(fd, &status) == 0
         && std::to_string(status.st_dev) + ':' + std::to_string(status.st_ino) == told;
}

void nv_log_stdout() {
  output_is_journal = stream_is_journal(STDOUT_FILENO);
  if (output_is_journal) {
    g_set_print_handler(print_marked);
  }
  if (stream_is_journal(STDERR_FILENO)) {
    mark_standard_error();
  }
  // Lines printed directly must not overtake, or lag behind, those that come through the log.
  setvbuf(stdout, nullptr, _IOLBF, 0);
  g_log_set_writer_func(write_line, nullptr, nullptr);
}
