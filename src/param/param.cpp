// Loading, storing and handing over the key file. What a port's group holds is in
// param-port-group.cpp.
#include "param/param.h"

#include "param/key-file.h"
#include "param/param-port-group.h"
#include "platform/checks.h"
#include "platform/file-sync.h"
#include "platform/log.h"
#include "platform/own-user.h"
#include "platform/regular-file.h"
#include "port/ioport-list.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace {

/// Guards what stands below; the last lock in the order.
std::mutex key_mutex;
KeyFilePtr key_file;
/// The groups that are to be saved and are not on the disk yet.
KeyFilePtr unsaved;

bool something_is_unsaved() {
  const std::lock_guard guard(key_mutex);
  return unsaved != nullptr;
}

// The port's settings as they are now. They are kept rather than the port, which may be gone by the
// time that they can be saved.
void note_as_unsaved(IoPort* port) {
  const std::lock_guard guard(key_mutex);
  if (unsaved == nullptr) {
    unsaved = key_file_make();
  }
  param_group_write(unsaved.get(), port);
}

void take_over_unsaved() {
  const std::lock_guard guard(key_mutex);
  if (unsaved != nullptr && key_file != nullptr) {
    key_file_copy(unsaved.get(), key_file.get());
  }
}

void store_unsaved(const char* file) {
  take_over_unsaved();
  if (param_store_key_file(file)) {
    const std::lock_guard guard(key_mutex);
    unsaved.reset();
  }
}

// What has a second name, or is only a link, may be somebody else's.
UniqueFd open_to_hand_over(const char* path, GError** error) {
  struct stat status {};
  UniqueFd fd = regular_file_open(AT_FDCWD, path, Links::Refused, &status, error);
  if (fd && status.st_nlink != 1) {
    g_set_error(error, G_FILE_ERROR, G_FILE_ERROR_INVAL, "'%s' has more than one name", path);
    return {};
  }
  return fd;
}

} // namespace

bool param_read_configuration(const char* path) {
  const std::lock_guard guard(key_mutex);
  key_file = key_file_make();
  struct stat status {};
  if (lstat(path, &status) != 0) {
    return true;
  }
  g_autoptr(GError) error = nullptr;
  key_file = key_file_load(path, &error);
  if (key_file == nullptr) {
    fprintf(stderr, "Could not read key file: %s\n", error->message);
    return false;
  }
  return true;
}

bool param_store_key_file(const char* path) {
  const std::lock_guard guard(key_mutex);
  WEXD_RETURN_VAL_IF_FAIL(key_file != NULL, false);
  gsize length = 0;
  g_autofree gchar* text = g_key_file_to_data(key_file.get(), &length, nullptr);
  g_autoptr(GError) error = nullptr;
  if (!file_set_contents_synced(path, {text, length}, &error)) {
    fprintf(stderr, "Failed to store key file %s: %s\n", path, error->message);
    return false;
  }
  return true;
}

void param_close_file() {
  const std::lock_guard guard(key_mutex);
  key_file.reset();
}

bool param_get_conf_vals(IoPort* port) {
  WEXD_RETURN_VAL_IF_FAIL(key_file != NULL, false);
  const std::lock_guard guard(key_mutex);
  return param_group_read(key_file.get(), port);
}

bool param_set_conf_vals(IoPort* port) {
  WEXD_RETURN_VAL_IF_FAIL(key_file != NULL, false);
  const std::lock_guard guard(key_mutex);
  return param_group_write(key_file.get(), port);
}

void param_save_for_port(IoPort* port, const char* file) {
  g_assert(port != NULL);
  const bool loaded = key_file != nullptr;
  note_as_unsaved(port);
  if (!loaded) {
    WEXD_RETURN_IF_FAIL(param_read_configuration(file));
  }
  store_unsaved(file);
  if (!loaded) {
    param_close_file();
  }
}

bool param_save_all(const char* file) {
  bool all_saved = true;
  const IoPortListLock list_lock;
  for (IoPort* port : io_port_list_get()) {
    if (port->number >= 0 && io_port_get_property(port, "ioport")) {
      const IoPortRef held(io_port_ref(port));
      param_save_for_port(port, file);
      all_saved = all_saved && !something_is_unsaved();
    }
  }
  return all_saved;
}

void param_save_unsaved(const char* file) {
  if (something_is_unsaved() && param_read_configuration(file)) {
    store_unsaved(file);
    param_close_file();
  }
}

void param_set_owner_group(const char* file) {
  constexpr auto unchanged = static_cast<gid_t>(-1);
  const auto* user = getpwnam(own_user_name);
  if (user == nullptr) {
    g_warning("%sFailed to get uid", log_prefix);
    return;
  }
  const uid_t uid = user->pw_uid;
  const auto* group = getgrnam(own_user_name);
  if (group == nullptr) {
    g_warning("%sFailed to get gid", log_prefix);
  }
  const gid_t gid = group != nullptr ? group->gr_gid : unchanged;
  g_autoptr(GError) error = nullptr;
  const UniqueFd fd = open_to_hand_over(file, &error);
  if (!fd) {
    g_warning("%sNot handing over settings: %s", log_prefix, error->message);
    return;
  }
  if (fchown(fd.get(), uid, gid) != 0) {
    const int saved_errno = errno;
    std::array<char, 128> buffer{};
    g_warning("%schown failed on file '%s': (%d) %s", log_prefix, file, saved_errno,
              strerror_r(saved_errno, buffer.data(), buffer.size()));
  }
}
