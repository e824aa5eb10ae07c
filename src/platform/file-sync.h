// Whole-file write that survives a power cut.
#pragma once

#include <glib.h>
#include <sys/types.h>

#include <optional>
#include <string_view>

/// Writes `text` as the whole content of `path` and syncs it to disk.
///
/// The text goes to a new file beside `path`, named after it (".<name>.new"), which is synced and
/// renamed over it, then the folder is synced: a crash leaves either the old or the new content,
/// and at most that one file, which the next write takes away. The mode of an existing file is
/// kept, its owner too where the caller may give files away.
///
/// Where the folder refuses a new file (the daemon may own the file but not the folder, or the file
/// is a mount of its own) and the file itself can be written, it is rewritten in place: at once, at
/// no less than its old length, filled up with line ends that are cut off when all is on disk. Only
/// a power cut in that moment can leave a mixture.
///
/// Nobody is trusted who may write the folder: links are not followed, and what is no regular file
/// is not replaced.
///
/// Returns false with `error` set when the text could not be stored; the old content then stays.
[[nodiscard]] bool file_set_contents_synced(const char* path, std::string_view text,
                                            GError** error);

struct FileOwner {
  uid_t user;
  gid_t group;
};

/// Makes `path` anew with `text` as its content, synced where that is possible; whatever had the
/// name before is gone. It is given to `owner`, if there is one and the caller may do that. For
/// files that nobody reads yet: a crash may leave half a text.
[[nodiscard]] bool file_create_synced(const char* path, std::string_view text,
                                      const std::optional<FileOwner>& owner, GError** error);

/// Takes away what writes of `path` have left that broke off, also those of earlier releases:
/// "<name>.XXXXXX" with six random letters and digits. A word or a date in their place is
/// somebody's copy and stays.
void file_remove_leftovers(const char* path);
