// Key files as this folder reads and merges them.
#pragma once

#include "platform/handles.h"

#include <glib.h>

#include <memory>
#include <string>
#include <string_view>

using KeyFilePtr = std::unique_ptr<GKeyFile, FreeWith<g_key_file_free>>;

/// An empty one.
[[nodiscard]] KeyFilePtr key_file_make();

/// Parses with comments kept; nullptr with `error` set when that fails.
[[nodiscard]] KeyFilePtr key_file_parse(std::string_view text, GError** error);

/// Reads and parses a regular file. A link is none: its folder may belong to somebody who is not to
/// choose what we read. nullptr with `error` set when that fails.
[[nodiscard]] KeyFilePtr key_file_load(const char* path, GError** error);

/// A text, decoded. False with `error` set when it is missing or malformed; `text` is untouched
/// then.
[[nodiscard]] bool key_file_get_text(GKeyFile* file, const char* group, const char* key,
                                     std::string* text, GError** error);
/// A text as it stands in a key file, to be read as it is: as the library writes one, but that a
/// form feed at its start, which key files take for indentation and have no sign for, is "\\f".
[[nodiscard]] std::string key_file_raw_text(std::string_view text);

/// A whole key file as a text.
[[nodiscard]] std::string key_file_to_text(GKeyFile* file);

/// Copies every value, as the raw text that it is, over what the target has of that name.
void key_file_copy(GKeyFile* source, GKeyFile* target);
