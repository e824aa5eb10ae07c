#include "wexctl/descriptions.h"

#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

namespace wexctl {

namespace {

constexpr const char* hardware_description = "/usr/share/wexd/conf.xml";
constexpr const char* drop_folder = "/etc/wexd.d/";
/// Through which the daemon writes its legacy files.
constexpr const char* temporary_file = "legacy.tmp";

// The daemon trusts the user that it starts as; on a device that is root.
bool is_trusted(const struct stat& status) {
  return status.st_uid == 0 || status.st_uid == geteuid();
}

// Both the entry and, if it is a link, what it leads to.
bool is_read(const std::string& path) {
  struct stat entry {};
  struct stat file {};
  return lstat(path.c_str(), &entry) == 0 && is_trusted(entry) && stat(path.c_str(), &file) == 0
         && is_trusted(file) && S_ISREG(file.st_mode) && (file.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

} // namespace

std::vector<std::string> description_files() {
  std::vector<std::string> files{hardware_description};
  g_autoptr(GDir) folder = g_dir_open(drop_folder, 0, nullptr);
  while (const gchar* name = folder != nullptr ? g_dir_read_name(folder) : nullptr) {
    const std::string path = std::string(drop_folder) + name;
    if (!g_str_equal(name, temporary_file) && is_read(path)) {
      files.push_back(path);
    }
  }
  return files;
}

} // namespace wexctl
