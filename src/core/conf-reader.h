// The hardware description: XML files that say which ports the device has.
#pragma once

/// A reading of several files. What one leaves open, the next goes on with: a file that ends inside
/// a skipped port or a backend.
struct ConfReader {
  bool ignore_elements = false;
  bool backend_data = false;
};

/// Reads and parses one file into the port list; true when all of it was read and parsed. What
/// was parsed before an error stays. Nothing but a regular file is read.
[[nodiscard]] bool conf_read_configuration(ConfReader& reader, const char* file_name);

/// Reads every file of a directory, in directory order, until one fails; true when all were read.
/// Skipped are those that only somebody else can have placed there; see drop-folder.h.
[[nodiscard]] bool conf_read_drop_dir(ConfReader& reader, const char* directory);

/// After the last file: drops every port that names no known backend, with a warning.
void conf_finish_reading();
