// Whole-file write that survives a power cut.
#pragma once

#include <glib.h>

#include <string_view>

/// Writes `text` as the whole content of `path` and syncs it to disk.
///
/// The text goes to a new file beside `path` which is synced and renamed over it, then the folder
/// is synced: a crash leaves either the old or the new content. Mode and owner of an existing file
/// are kept. Where the folder refuses a new file (the daemon may own the file but not the folder)
/// and the file itself can be written, it is rewritten in place and synced.
///
/// Returns false with `error` set when the text could not be stored; the old content then stays.
[[nodiscard]] bool file_set_contents_synced(const char* path, std::string_view text,
                                            GError** error);
