// One daemon at a time: two of them would save their own idea of the settings over each other's.
#pragma once

/// Locks the folder of the settings for the life of the process; the kernel unlocks it at the end,
/// whichever way that comes. Waits a moment for a daemon that is about to end.
///
/// False, with a warning, when another process keeps the lock. True as well where there is nothing
/// to lock, or nothing that can be locked: ports without that safety are better than none.
[[nodiscard]] bool claim_settings_folder(const char* folder);
