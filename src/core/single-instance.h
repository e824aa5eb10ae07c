// One daemon at a time: two of them would save their own idea of the settings over each other's.
#pragma once

#include "platform/handles.h"

#include <optional>

/// Locks the folder of the settings for the life of what is returned; the kernel unlocks it at the
/// end of the process, whichever way that comes. Waits a moment for a daemon that is about to end.
///
/// None, with a warning, when another process keeps the lock. An empty claim where there is nothing
/// to lock, or nothing that can be locked: ports without that safety are better than none.
[[nodiscard]] std::optional<UniqueFd> claim_settings_folder(const char* folder);
