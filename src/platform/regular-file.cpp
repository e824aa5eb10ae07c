// What lies there is looked at before it is opened, because opening alone may do harm, and once
// more afterwards, because it may have been exchanged in between.
#include "platform/regular-file.h"

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <ctime>
#include <memory>

namespace {

bool is_regular(const struct stat& status, const char* name, GError** error) {
  if (S_ISREG(status.st_mode)) {
    return true;
  }
  g_set_error(error, G_FILE_ERROR, S_ISLNK(status.st_mode) ? G_FILE_ERROR_LOOP : G_FILE_ERROR_INVAL,
              S_ISLNK(status.st_mode) ? "'%s' is a symbolic link, which is not followed"
                                      : "'%s' is not a regular file",
              name);
  return false;
}

bool same_time(const timespec& one, const timespec& other) {
  return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

} // namespace

bool file_failed(GError** error, const char* what, const char* name) {
  const int saved_errno = errno;
  g_set_error(error, G_FILE_ERROR, g_file_error_from_errno(saved_errno), "Failed to %s '%s': %s",
              what, name, g_strerror(saved_errno));
  return false;
}

UniqueFd regular_file_open(int folder, const char* name, Links links, struct stat* status,
                           GError** error) {
  const bool followed = links == Links::Followed;
  if (fstatat(folder, name, status, followed ? 0 : AT_SYMLINK_NOFOLLOW) != 0) {
    file_failed(error, "open", name);
    return {};
  }
  if (!is_regular(*status, name, error)) {
    return {};
  }
  UniqueFd fd(openat(folder, name,
                     O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | (followed ? 0 : O_NOFOLLOW)));
  if (!fd || fstat(fd.get(), status) != 0) {
    file_failed(error, "open", name);
    return {};
  }
  return is_regular(*status, name, error) ? std::move(fd) : UniqueFd();
}

bool regular_file_read(int fd, const char* name, std::string* text, GError** error) {
  constexpr gsize chunk = 65'536;
  const auto buffer = std::make_unique_for_overwrite<char[]>(chunk);
  text->clear();
  while (true) {
    const ssize_t count = read(fd, buffer.get(), chunk);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count < 0) {
      return file_failed(error, "read", name);
    }
    if (count == 0) {
      return true;
    }
    text->append(buffer.get(), static_cast<gsize>(count));
  }
}

bool regular_file_get_contents(const char* path, Links links, std::string* text, GError** error) {
  struct stat status {};
  const UniqueFd fd = regular_file_open(AT_FDCWD, path, links, &status, error);
  return fd && regular_file_read(fd.get(), path, text, error);
}

bool regular_file_is_unchanged(const char* path, const struct stat& before) {
  struct stat now {};
  return lstat(path, &now) == 0 && now.st_dev == before.st_dev && now.st_ino == before.st_ino
         && now.st_size == before.st_size && same_time(now.st_mtim, before.st_mtim)
         && same_time(now.st_ctim, before.st_ctim);
}

bool regular_file_has_settled(const struct stat& status) {
  // The coarsest file systems count in steps of two seconds.
  constexpr time_t settled_after_s = 3;
  timespec now{};
  clock_gettime(CLOCK_REALTIME_COARSE, &now);
  return now.tv_sec - status.st_ctim.tv_sec >= settled_after_s;
}
