// Log routing: everything the daemon logs ends up on standard output, one flushed line per message.
#pragma once

#include <glib.h>

#include <bit>

/// Fed to the "%s" that opens every log format; a place for a device-wide tag, empty by default.
inline constexpr const char* log_prefix = "";

/// The first user-defined GLib level (256). Unnamed in GLib; used for module messages that are
/// neither warnings nor information.
inline constexpr auto log_level_user = std::bit_cast<GLogLevelFlags>(1 << G_LOG_LEVEL_USER_SHIFT);

/// Routes every GLib log message of the process, all levels and domains, to standard output as
/// "LEVEL: text" ("Domain-LEVEL: text" when the message carries a domain). A message becomes
/// exactly one line, flushed at once. To be called once, before other threads start.
void nv_log_stdout();
