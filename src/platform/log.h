// Log routing: everything the daemon logs ends up on standard output, one flushed line per message.
// The journal, where it is at the other end of a stream, is told the level of each line.
#pragma once

#include <glib.h>

#include <bit>
#include <string>
#include <string_view>

/// Fed to the "%s" that opens every log format; a place for a device-wide tag, empty by default.
inline constexpr const char* log_prefix = "";

/// The first user-defined GLib level (256). Unnamed in GLib; used for module messages that are
/// neither warnings nor information.
inline constexpr auto log_level_user = std::bit_cast<GLogLevelFlags>(1 << G_LOG_LEVEL_USER_SHIFT);

/// Keeps what this thread warns of first, as long as it lives; once nv_log_stdout() was called.
class FirstWarning {
public:
  FirstWarning();
  ~FirstWarning();
  FirstWarning(const FirstWarning&) = delete;
  FirstWarning& operator=(const FirstWarning&) = delete;

  /// Empty if there was no warning.
  [[nodiscard]] const std::string& text() const { return text_; }
  void hear(GLogLevelFlags level, std::string_view message);

private:
  FirstWarning* outer_;
  std::string text_;
};

/// As long as it lives, the first complaint that this thread logs (a warning, something worse, or a
/// module's own message) is followed by a line of level MESSAGE that says where it comes from; once
/// nv_log_stdout() was called. The text is made when it is needed. It is not said again of a
/// message that has it, nor when it is empty.
class LogPlace {
public:
  using Tell = std::string (*)(const void* subject);

  LogPlace(Tell tell, const void* subject);
  ~LogPlace();
  LogPlace(const LogPlace&) = delete;
  LogPlace& operator=(const LogPlace&) = delete;

  /// What is to follow a message; empty if nothing is.
  [[nodiscard]] std::string after(GLogLevelFlags level, std::string_view message);

private:
  LogPlace* outer_;
  Tell tell_;
  const void* subject_;
  bool told_ = false;
};

/// Has the next message of this thread followed by this one, of level MESSAGE; once nv_log_stdout()
/// was called. For what is to be said besides a fixed text.
void log_remark(std::string text);

/// Whether the stream with that descriptor is the journal's, and so wants each line to begin with
/// its priority.
[[nodiscard]] bool stream_is_journal(int fd);

/// "<N>", by which the journal is told the priority (LOG_WARNING, ...) of a line.
[[nodiscard]] std::string priority_mark(int priority);

/// Routes every GLib log message of the process, all levels and domains, to standard output as
/// "LEVEL: text" ("Domain-LEVEL: text" when the message carries a domain). A message becomes
/// exactly one line, flushed at once. What GLib itself says for its own developers is left out,
/// unless G_MESSAGES_DEBUG asks for it.
///
/// Where standard output or standard error is the journal's, each line begins with "<N>", the
/// priority that the journal is to give it; what is printed directly on standard error is a
/// warning. To be called once, before other threads start.
void nv_log_stdout();
