// Reading files in folders where somebody else may have put something in their place.
#pragma once

#include "platform/handles.h"

#include <glib.h>
#include <sys/stat.h>

#include <string>

enum class Links { Refused, Followed };

/// Says in `error` that errno kept the caller from doing `what` with the file; false.
bool file_failed(GError** error, const char* what, const char* name);

/// Opens a regular file for reading. Anything else in its place is refused without being opened,
/// so that neither a pipe holds the caller nor a device is woken. `name` is looked up in `folder`
/// (AT_FDCWD: as open does); `status` tells of the file that is open then.
///
/// Nothing is held and `error` is set when there is no such file or it cannot be opened.
[[nodiscard]] UniqueFd regular_file_open(int folder, const char* name, Links links,
                                         struct stat* status, GError** error);

/// Reads from the start to the end; `name` is for the error's text.
[[nodiscard]] bool regular_file_read(int fd, const char* name, std::string* text, GError** error);

/// Both of the above for a path.
[[nodiscard]] bool regular_file_get_contents(const char* path, Links links, std::string* text,
                                             GError** error);

/// Whether a file that was in that state, when it was opened here, is so still: nobody has written
/// to it or put another in its place since. False when there is doubt.
[[nodiscard]] bool regular_file_is_unchanged(const char* path, const struct stat& before);

/// Whether a change of the file from now on would show in its state. Its times may be no finer than
/// some seconds, so that a second change right after the first leaves no trace.
[[nodiscard]] bool regular_file_has_settled(const struct stat& status);
