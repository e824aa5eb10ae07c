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

/// Copies every value, as the raw text that it is, over what the target has of that name.
void key_file_copy(GKeyFile* source, GKeyFile* target);
