#include "support/scratch.h"

#include <glib.h>

#include <fstream>
#include <sstream>

ScratchFolder::ScratchFolder() {
  g_autofree gchar* made = g_dir_make_tmp("wexd-unit-XXXXXX", nullptr);
  g_assert(made != nullptr);
  folder_ = made;
}

ScratchFolder::~ScratchFolder() {
  std::error_code ignored;
  std::filesystem::permissions(folder_, std::filesystem::perms::owner_all, ignored);
  std::filesystem::remove_all(folder_, ignored);
}

std::string ScratchFolder::path(const std::string& entry) const {
  return entry.empty() ? folder_.string() : (folder_ / entry).string();
}

std::string ScratchFolder::write(const std::string& entry, const std::string& text) const {
  const auto file = path(entry);
  overwrite_file(file, text);
  return file;
}

std::string read_file(const std::string& path) {
  const std::ifstream file(path, std::ios::binary);
  if (!file) {
    return "(no file)";
  }
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

void overwrite_file(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << text;
  file.close();
  g_assert(file.good());
}
