#include "wexctl/machine.h"

#include <glib.h>

#include <algorithm>
#include <cstring>

namespace wexctl {

std::vector<std::string> entries(const char* folder, const char* prefix) {
  std::vector<std::string> names;
  g_autoptr(GDir) opened = g_dir_open(folder, 0, nullptr);
  while (const gchar* name = opened != nullptr ? g_dir_read_name(opened) : nullptr) {
    if (g_str_has_prefix(name, prefix)) {
      names.emplace_back(name);
    }
  }
  std::ranges::sort(names);
  return names;
}

std::string first_line(const std::string& path) {
  g_autofree gchar* text = nullptr;
  if (!g_file_get_contents(path.c_str(), &text, nullptr, nullptr)) {
    return "";
  }
  return std::string(text, strcspn(text, "\n"));
}

} // namespace wexctl
