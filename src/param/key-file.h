// Key files as this folder reads and merges them.
#pragma once

#include "platform/handles.h"

#include <glib.h>

#include <memory>
#include <string>

struct KeyFileFree {
  void operator()(GKeyFile* file) const { g_key_file_free(file); }
};

using KeyFilePtr = std::unique_ptr<GKeyFile, KeyFileFree>;

/// An empty one.
KeyFilePtr key_file_make();

/// Parses with comments kept; nullptr with `error` set when that fails.
KeyFilePtr key_file_parse(const std::string& text, GError** error);

/// Reads and parses a regular file. A link is none: its folder may belong to somebody who is not to
/// choose what we read. nullptr with `error` set when that fails.
KeyFilePtr key_file_load(const char* path, GError** error);

/// A text, decoded. False with `error` set when it is missing or malformed; `text` is untouched
/// then.
bool key_file_get_text(GKeyFile* file, const char* group, const char* key, std::string* text,
                       GError** error);
/// Stores a text so that it is read as it is: a form feed at its start, which key files take for
/// indentation and have no sign for, is written as "\\f".
void key_file_set_text(GKeyFile* file, const char* group, const char* key, const char* text);

/// Copies every value, as the raw text that it is, over what the target has of that name.
void key_file_copy(GKeyFile* source, GKeyFile* target);
