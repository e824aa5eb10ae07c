// All is done relative to the folder that was opened first, and to files that are open: names may
// change hands at any time in a folder that a less privileged user writes.
#include "platform/file-sync.h"

#include "platform/handles.h"
#include "platform/regular-file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <string>

namespace {

constexpr mode_t default_mode = 0644;
/// Of a file that is not yet whole, or not yet its owner's.
constexpr mode_t private_mode = 0600;
constexpr mode_t kept_mode_bits = 0777;

// One file to write, and where it lies.
struct Target {
  explicit Target(const char* whole_path);

  const char* path;
  std::string name;
  std::string temporary;
  UniqueFd folder;
  struct stat before {};
  bool existed = false;
};

Target::Target(const char* whole_path) : path(whole_path) {
  g_autofree gchar* folder_path = g_path_get_dirname(path);
  g_autofree gchar* base = g_path_get_basename(path);
  name = base;
  temporary = "." + name + ".new";
  // Reading the folder may be forbidden where writing the file is not.
  folder.reset(open(folder_path, O_PATH | O_DIRECTORY | O_CLOEXEC));
}

enum class Replaced {
  Yes,
  /// The disk is not to blame: the file itself may still take the text.
  FolderRefused,
  No,
};

Replaced refused(GError** error, const char* what, const Target& target) {
  static constexpr std::array of_the_folder{EACCES, EPERM, EROFS, EBUSY};
  const bool by_folder = std::ranges::find(of_the_folder, errno) != of_the_folder.end();
  file_failed(error, what, target.path);
  return by_folder ? Replaced::FolderRefused : Replaced::No;
}

bool write_all(int fd, std::string_view text) {
  off_t place = 0;
  while (!text.empty()) {
    const ssize_t written = pwrite(fd, text.data(), text.size(), place);
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written < 0) {
      return false;
    }
    text.remove_prefix(static_cast<gsize>(written));
    place += written;
  }
  return true;
}

// The new file belongs to whoever runs us. Only root can give it back; once the daemon is an
// ordinary user, a file that it replaces is its own. A settings file is never a program, whatever
// its mode said.
void take_after(int fd, const Target& target) {
  const struct stat& before = target.before;
  const bool foreign = before.st_uid != geteuid() || before.st_gid != getegid();
  if (foreign && geteuid() == 0 && fchown(fd, before.st_uid, before.st_gid) != 0) {
    g_warning("Could not restore the owner of '%s': %s", target.path, g_strerror(errno));
  }
  if (fchmod(fd, before.st_mode & kept_mode_bits) != 0) {
    g_warning("Could not restore the mode of '%s': %s", target.path, g_strerror(errno));
  }
}

bool fill(int fd, std::string_view text, const Target& target) {
  if (!write_all(fd, text)) {
    return false;
  }
  if (target.existed) {
    take_after(fd, target);
  }
  return fsync(fd) == 0;
}

// Some file systems cannot sync a folder, and some folders may be written but not opened.
bool sync_folder(const Target& target) {
  const UniqueFd fd(openat(target.folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return !fd || fsync(fd.get()) == 0 || errno == EINVAL;
}

// Whatever has the name goes: a link in its place must not lead the text elsewhere.
UniqueFd create_anew(int folder, const char* name, mode_t mode) {
  if (unlinkat(folder, name, 0) != 0 && errno != ENOENT) {
    return {};
  }
  return UniqueFd(openat(folder, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
}

void remove_temporary(const Target& target) {
  unlinkat(target.folder.get(), target.temporary.c_str(), 0);
}

Replaced replace(const Target& target, std::string_view text, GError** error) {
  const UniqueFd fd = create_anew(target.folder.get(), target.temporary.c_str(),
                                  target.existed ? private_mode : default_mode);
  if (!fd) {
    return refused(error, "make a file beside", target);
  }
  if (!fill(fd.get(), text, target)) {
    file_failed(error, "write", target.path);
    remove_temporary(target);
    return Replaced::No;
  }
  if (renameat(target.folder.get(), target.temporary.c_str(), target.folder.get(),
               target.name.c_str())
      != 0) {
    const auto result = refused(error, "replace", target);
    remove_temporary(target);
    return result;
  }
  if (!sync_folder(target)) {
    file_failed(error, "sync the folder of", target.path);
    return Replaced::No;
  }
  return Replaced::Yes;
}

// A text of less than the old length is filled up: whatever of it has reached the disk, no end of
// the old text is behind it.
bool overwrite(int fd, std::string_view text, gsize old_size) {
  std::string padded(text);
  padded.resize(std::max(text.size(), old_size), '\n');
  if (!write_all(fd, padded) || fsync(fd) != 0) {
    return false;
  }
  return padded.size() == text.size()
         || (ftruncate(fd, static_cast<off_t>(text.size())) == 0 && fsync(fd) == 0);
}

void restore(int fd, std::string_view old) {
  if (write_all(fd, old) && ftruncate(fd, static_cast<off_t>(old.size())) == 0) {
    fsync(fd);
  }
}

bool is_one_file(int fd, struct stat* status, const char* path, GError** error) {
  if (fstat(fd, status) != 0) {
    return file_failed(error, "inspect", path);
  }
  if (!S_ISREG(status->st_mode) || status->st_nlink != 1) {
    g_set_error(error, G_FILE_ERROR, G_FILE_ERROR_INVAL,
                "'%s' is not a regular file with one name, so it is not written in place", path);
    return false;
  }
  return true;
}

// Room for a longer text is reserved first, so that the usual reason for a failed write (a full
// disk) is met before the old content is touched.
bool rewrite_in_place(int fd, std::string_view text, const char* path, GError** error) {
  struct stat status {};
  if (!is_one_file(fd, &status, path, error)) {
    return false;
  }
  std::string old(static_cast<gsize>(status.st_size), '\0');
  if (pread(fd, old.data(), old.size(), 0) != status.st_size) {
    return file_failed(error, "read", path);
  }
  if (text.size() > old.size()
      && fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(text.size())) != 0
      && errno != EOPNOTSUPP) {
    return file_failed(error, "reserve space for", path);
  }
  if (!overwrite(fd, text, old.size())) {
    file_failed(error, "write", path);
    restore(fd, old);
    return false;
  }
  return true;
}

bool may_be_replaced(Target& target, GError** error) {
  if (!target.folder) {
    return file_failed(error, "open the folder of", target.path);
  }
  target.existed =
      fstatat(target.folder.get(), target.name.c_str(), &target.before, AT_SYMLINK_NOFOLLOW) == 0;
  if (!target.existed && errno != ENOENT) {
    return file_failed(error, "inspect", target.path);
  }
  if (target.existed && !S_ISREG(target.before.st_mode)) {
    g_set_error(error, G_FILE_ERROR, G_FILE_ERROR_INVAL, "'%s' is not a regular file", target.path);
    return false;
  }
  return true;
}

bool is_random_ending(std::string_view text) {
  constexpr gsize length = 6;
  const auto all = [](std::string_view part, auto is) { return std::ranges::all_of(part, is); };
  const auto alphanumeric = [](char c) { return g_ascii_isalnum(c); };
  if (text.size() != length || !all(text, alphanumeric)) {
    return false;
  }
  const bool word = g_ascii_isalpha(text.front())
                    && all(text.substr(1), [](char c) { return g_ascii_islower(c); });
  const bool date = all(text, [](char c) { return g_ascii_isdigit(c); });
  return !word && !date;
}

} // namespace

bool file_set_contents_synced(const char* path, std::string_view text, GError** error) {
  Target target(path);
  if (!may_be_replaced(target, error)) {
    return false;
  }
  g_autoptr(GError) replace_error = nullptr;
  const auto replaced = replace(target, text, &replace_error);
  if (replaced == Replaced::Yes) {
    return true;
  }
  if (replaced == Replaced::FolderRefused && target.existed) {
    const UniqueFd fd(openat(target.folder.get(), target.name.c_str(),
                             O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (fd) {
      return rewrite_in_place(fd.get(), text, path, error);
    }
  }
  g_propagate_error(error, g_steal_pointer(&replace_error));
  return false;
}

bool file_create_synced(const char* path, std::string_view text,
                        const std::optional<FileOwner>& owner, GError** error) {
  const UniqueFd fd = create_anew(AT_FDCWD, path, default_mode);
  if (!fd) {
    return file_failed(error, "create", path);
  }
  if (!write_all(fd.get(), text)) {
    file_failed(error, "write", path);
    unlink(path);
    return false;
  }
  // A file of ours is as good to its readers.
  if (owner && fchown(fd.get(), owner->user, owner->group) != 0) {
    g_info("Could not give '%s' to its owner: %s", path, g_strerror(errno));
  }
  // A file system that cannot sync still has the text.
  fsync(fd.get());
  return true;
}

void file_remove_leftovers(const char* path) {
  const Target target(path);
  UniqueFd fd(openat(target.folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::unique_ptr<DIR, FreeWith<closedir>> entries(fd ? fdopendir(fd.get()) : nullptr);
  if (entries == nullptr) {
    return;
  }
  fd.leave(); // it goes with the entries
  remove_temporary(target);
  while (const dirent* entry = readdir(entries.get())) {
    std::string_view left = entry->d_name;
    if (!left.starts_with(target.name + ".")) {
      continue;
    }
    left.remove_prefix(target.name.size() + 1);
    if (is_random_ending(left)) {
      unlinkat(target.folder.get(), entry->d_name, 0);
    }
  }
}
