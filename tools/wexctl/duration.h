// Lengths of time as people write them.
#pragma once

#include <glib.h>

#include <optional>
#include <string>

namespace wexctl {

/// Milliseconds; nothing is for ever.
using Timeout = std::optional<guint>;

/// The longest that any verb takes, in milliseconds: 24 days.
inline constexpr guint longest_duration_ms = G_MAXINT32;

/// Milliseconds of "500ms", "2s", "1.5s", "3m", "1h" or, without a unit, "500"; nothing when the
/// text is none of these or longer than the longest.
std::optional<guint> parse_duration(const std::string& text);

} // namespace wexctl
