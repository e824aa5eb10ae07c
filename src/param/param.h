// The user's port settings in one GLib key file: a group per port, named after the port.
#pragma once

#include <glib.h>

#include <optional>
#include <string>

struct IoPort;

/// The user configuration, and the folder that it is in.
inline constexpr const char* param_folder = "/etc/wexd";
inline constexpr const char* param_file = "/etc/wexd/wexd.conf";

/// Loads `path` into the module's key file; a missing file is an empty one. False when the file
/// cannot be read or parsed, or is no regular file (a link is none); nothing is loaded then.
[[nodiscard]] bool param_read_configuration(const char* path);
/// Writes the loaded key file to `path` and syncs it, unless that is where it was read and nothing
/// has changed; false when that fails.
[[nodiscard]] bool param_store_key_file(const char* path);
/// Forgets the loaded key file.
void param_close_file();
/// Reads the port's group of the loaded key file into the port; false when the group is absent or
/// broken (values before the broken key stay set).
[[nodiscard]] bool param_get_conf_vals(IoPort* port);
/// Writes the port's settings into its group of the loaded key file; does not store the file.
[[nodiscard]] bool param_set_conf_vals(IoPort* port);
/// Saves one port: reads, changes and stores the whole file, so that foreign changes are kept. What
/// cannot be saved is remembered, and goes to the disk with the next save of any port. A file that
/// is known to say the same already is neither read nor written.
void param_save_for_port(IoPort* port, const char* file);
/// Saves every I/O port of the list, all at once; false when that failed.
[[nodiscard]] bool param_save_all(const char* file);
/// Tries once more to save what is still remembered, if anything is.
void param_save_unsaved(const char* file);
/// A save that failed.
struct FailedSave {
  /// Microseconds since the boot.
  gint64 at_us;
  std::string reason;
  /// Whether all of it is on the disk by now.
  bool made_good;
};
/// The last save that failed, if one did.
[[nodiscard]] std::optional<FailedSave> param_last_failed_save();
/// Hands the file to the user and group `wxd`, unless it is a link or has a second name.
void param_set_owner_group(const char* file);
