// One port's group in the key file: which keys, in which order, in which form.
#pragma once

#include <glib.h>

#include <optional>
#include <string>
#include <vector>

struct IoPort;

/// A port's settings as they stand in the file.
struct ParamGroup {
  struct Line {
    const char* key;
    /// Raw: with the signs that key files have for some characters.
    std::string value;
  };
  std::string name;
  std::vector<Line> lines;
};

/// What is to be saved of the port; none, after a message, when its name cannot head a group.
[[nodiscard]] std::optional<ParamGroup> param_group_of(IoPort* port);
/// The group as it is written into a file that does not have it yet.
[[nodiscard]] std::string param_group_text(const ParamGroup& group);
/// Brings the file's group of that name in line; keys of others stay.
void param_group_store(GKeyFile* file, const ParamGroup& group);

/// Reads the group into the port; see param_get_conf_vals.
[[nodiscard]] bool param_group_read(GKeyFile* file, IoPort* port);
/// Writes the port into its group; see param_set_conf_vals.
[[nodiscard]] bool param_group_write(GKeyFile* file, IoPort* port);
