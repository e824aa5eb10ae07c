// The folder of further hardware descriptions, which the daemon's own user may be able to write.
#pragma once

#include <functional>
#include <string>

/// Called with the path and the text of a description; false ends the reading.
using DropInReader = std::function<bool(const char* path, const std::string& text)>;

/// Hands every description of the folder to `read`, in the folder's order, until one cannot be read
/// or is refused; true when none was.
///
/// A description is a regular file of the user that the process runs as, not writable by anyone
/// else, or a link of that user to such a file. Anything else is skipped with a warning; the
/// temporary of the legacy files is skipped without, and so is what goes meanwhile.
[[nodiscard]] bool drop_folder_read(const char* directory, const DropInReader& read);
