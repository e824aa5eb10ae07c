// The hardware description: XML files that say which ports the device has.
#pragma once

/// Reads and parses one file into the port list; true when all of it was read and parsed. What
/// was parsed before an error stays. Nothing but a regular file is read.
[[nodiscard]] bool conf_read_configuration(const char* file_name);

/// Reads every file of a directory, in directory order, until one fails; true when all were read.
/// Skipped are those that only somebody else can have placed there; see drop-folder.h.
[[nodiscard]] bool conf_read_drop_dir(const char* directory);

/// After the last file: drops every port that names no known backend, with a warning.
void conf_finish_reading();
