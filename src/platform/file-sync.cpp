// The ordinary way is GLib's durable replace. The in-place way reserves the space first, so that
// the usual reason for a failed write (a full disk) is met before the old content is touched.
#include "platform/file-sync.h"

#include "platform/handles.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string>

namespace {

constexpr int default_mode = 0644;

bool fail(GError** error, const char* what, const char* path) {
  const int saved_errno = errno;
  g_set_error(error, G_FILE_ERROR, g_file_error_from_errno(saved_errno), "Failed to %s '%s': %s",
              what, path, g_strerror(saved_errno));
  return false;
}

bool write_all(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written < 0) {
      return false;
    }
    text.remove_prefix(static_cast<gsize>(written));
  }
  return true;
}

bool overwrite(int fd, std::string_view text) {
  return lseek(fd, 0, SEEK_SET) == 0 && write_all(fd, text)
         && ftruncate(fd, static_cast<off_t>(text.size())) == 0 && fsync(fd) == 0;
}

bool replace_in_place(const char* path, std::string_view text, GError** error) {
  const UniqueFd fd(open(path, O_RDWR | O_CLOEXEC));
  if (!fd) {
    return fail(error, "open", path);
  }

  struct stat before {};
  if (fstat(fd.get(), &before) != 0) {
    return fail(error, "inspect", path);
  }

  std::string old(static_cast<gsize>(before.st_size), '\0');
  if (pread(fd.get(), old.data(), old.size(), 0) != before.st_size) {
    return fail(error, "read", path);
  }

  if (text.size() > old.size()
      && fallocate(fd.get(), FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(text.size())) != 0
      && errno != EOPNOTSUPP) {
    return fail(error, "reserve space for", path);
  }

  if (!overwrite(fd.get(), text)) {
    fail(error, "write", path);
    overwrite(fd.get(), old);
    return false;
  }
  return true;
}

// The umask has taken its part of the new file's mode, and the file belongs to whoever runs us.
// Only root can give it back; once the daemon is an ordinary user, a file that it replaces is its
// own.
void restore_owner_and_mode(const char* path, const struct stat& before, int mode) {
  const bool foreign = before.st_uid != geteuid() || before.st_gid != getegid();
  if (foreign && geteuid() == 0 && chown(path, before.st_uid, before.st_gid) != 0) {
    g_warning("Could not restore the owner of '%s': %s", path, g_strerror(errno));
  }
  if (chmod(path, static_cast<mode_t>(mode)) != 0) {
    g_warning("Could not restore the mode of '%s': %s", path, g_strerror(errno));
  }
}

// Reasons that concern the folder or the name, not the disk: here the file may still take it.
// FAILED is what GLib makes of EBUSY, which a file that is itself a mount point gives to a rename.
bool folder_refused(const GError* error) {
  static constexpr std::array codes{G_FILE_ERROR_ACCES, G_FILE_ERROR_PERM, G_FILE_ERROR_ROFS,
                                    G_FILE_ERROR_FAILED};
  return std::ranges::any_of(
      codes, [error](auto code) { return g_error_matches(error, G_FILE_ERROR, code); });
}

} // namespace

bool file_set_contents_synced(const char* path, std::string_view text, GError** error) {
  struct stat before {};
  const bool existed = stat(path, &before) == 0;
  const int mode = existed ? static_cast<int>(before.st_mode & 07777U) : default_mode;

  g_autoptr(GError) replace_error = nullptr;
  constexpr auto durable =
      static_cast<GFileSetContentsFlags>(static_cast<unsigned>(G_FILE_SET_CONTENTS_CONSISTENT)
                                         | static_cast<unsigned>(G_FILE_SET_CONTENTS_DURABLE));
  if (g_file_set_contents_full(path, text.data(), static_cast<gssize>(text.size()), durable, mode,
                               &replace_error)) {
    if (existed) {
      restore_owner_and_mode(path, before, mode);
    }
    return true;
  }

  if (existed && folder_refused(replace_error) && access(path, W_OK) == 0) {
    return replace_in_place(path, text, error);
  }
  g_propagate_error(error, g_steal_pointer(&replace_error));
  return false;
}
