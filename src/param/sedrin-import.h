// One-time import of the settings that an older parameter service left behind.
#pragma once

#include <glib.h>

/// Copies the settings of the file into the ports; true when all of it was taken. Values taken
/// before an error stay; `error` is the first one. A missing file is no failure. What is no regular
/// file of the user that the process runs as is not taken, with a warning.
[[nodiscard]] bool read_sedrin_parameters(const char* path, GError** error);

/// The same without a word on a missing file; true when the ports have got from the file what could
/// be taken, so that it is done with once they are saved.
[[nodiscard]] bool sedrin_take_file(const char* path);

/// Copies every value of the source key file into the target key file and stores the target.
void param_upgrade(const char* source, const char* target, GError** error);
