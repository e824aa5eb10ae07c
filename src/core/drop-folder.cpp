// The start reads as root what lies in a folder that an ordinary user may write, so each entry has
// to show that only root can have placed it. All is asked of open files, never of names twice.
#include "core/drop-folder.h"

#include "dbus/service-registry.h"
#include "platform/handles.h"
#include "platform/log.h"
#include "platform/regular-file.h"

#include <dirent.h>
#include <fcntl.h>

#include <array>
#include <climits>
#include <memory>
#include <string_view>

namespace {

struct Entry {
  std::string path;
  UniqueFd fd;
  /// Why it is not read.
  const char* skipped = nullptr;
  /// It went after the folder was listed.
  bool gone = false;
};

// No descriptions: the folder itself and its parent, and what a crash amid the writing of the
// legacy files has left.
bool is_passed_over(const std::string& name) {
  return name == "." || name == ".."
         || std::string_view(legacy_temporary_file).ends_with('/' + name);
}

bool is_ours(const struct stat& status) {
  return status.st_uid == geteuid();
}

const char* reason_to_skip(const struct stat& status) {
  if (!is_ours(status)) {
    return "it belongs to another user";
  }
  return (status.st_mode & (S_IWGRP | S_IWOTH)) != 0 ? "others may write it" : nullptr;
}

// Where the entry leads: to itself, or as a link elsewhere. Asked of the link that was looked at,
// as another one could take its place. Empty when nobody may be led there.
std::string resolve(int folder, const char* name, Entry& entry) {
  const UniqueFd fd(openat(folder, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat status {};
  if (!fd || fstat(fd.get(), &status) != 0 || !S_ISLNK(status.st_mode)) {
    return name;
  }
  if (!is_ours(status)) {
    entry.skipped = "the link belongs to another user";
    return {};
  }
  std::array<char, PATH_MAX> target{};
  const ssize_t length = readlinkat(fd.get(), "", target.data(), target.size());
  return length > 0 ? std::string(target.data(), static_cast<gsize>(length)) : name;
}

void open_entry(int folder, const char* name, Entry& entry) {
  const std::string target = resolve(folder, name, entry);
  if (entry.skipped != nullptr) {
    return;
  }
  struct stat status {};
  g_autoptr(GError) error = nullptr;
  const auto links = target == name ? Links::Refused : Links::Followed;
  entry.fd = regular_file_open(folder, target.c_str(), links, &status, &error);
  if (entry.fd) {
    entry.skipped = reason_to_skip(status);
  } else if (g_error_matches(error, G_FILE_ERROR, G_FILE_ERROR_INVAL)) {
    entry.skipped = "it is not a regular file";
  } else if (links == Links::Refused && g_error_matches(error, G_FILE_ERROR, G_FILE_ERROR_NOENT)) {
    entry.gone = true;
  }
}

bool read_entry(int folder, const char* name, Entry& entry, const DropInReader& read) {
  open_entry(folder, name, entry);
  if (entry.skipped != nullptr) {
    g_warning("%sSkipping %s: %s", log_prefix, entry.path.c_str(), entry.skipped);
    return true;
  }
  // Others may come and go while the folder is read, and must not keep it from being read on.
  if (entry.gone) {
    return true;
  }
  std::string text;
  if (!entry.fd || !regular_file_read(entry.fd.get(), name, &text, nullptr)) {
    g_critical("%sCouldn't load XML (%s)\n", log_prefix, entry.path.c_str());
    return false;
  }
  return read(entry.path.c_str(), text);
}

} // namespace

bool drop_folder_read(const char* directory, const DropInReader& read) {
  const std::unique_ptr<DIR, FreeWith<closedir>> entries(opendir(directory));
  if (entries == nullptr) {
    return false;
  }
  while (const dirent* found = readdir(entries.get())) {
    if (is_passed_over(found->d_name)) {
      continue;
    }
    Entry entry{.path = std::string(directory) + '/' + found->d_name, .fd = UniqueFd()};
    if (!read_entry(dirfd(entries.get()), found->d_name, entry, read)) {
      return false;
    }
  }
  return true;
}
