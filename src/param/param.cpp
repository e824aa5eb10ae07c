// Loading, storing and handing over the key file. What a port's group holds is in
// param-port-group.cpp.
#include "param/param.h"

#include "param/key-file.h"
#include "param/param-port-group.h"
#include "platform/boot-time.h"
#include "platform/checks.h"
#include "platform/file-sync.h"
#include "platform/log.h"
#include "platform/mutex.h"
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
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace {

/// The settings file as it was last met.
struct OnDisk {
  std::string path;
  /// None where there is no file.
  std::optional<std::string> text;
  struct stat status {};
  /// Whether any change of the file since then shows in its status.
  bool settled = false;
  /// Whether a save that changes no setting would leave this very text.
  bool in_our_form = false;
};

/// What is loaded, and what of it is on the disk.
struct Settings {
  /// The last lock in the order.
  Mutex key_mutex;
  KeyFilePtr key_file WEXD_GUARDED_BY(key_mutex);
  OnDisk on_disk WEXD_GUARDED_BY(key_mutex);
  /// The groups that are to be saved and are not on the disk yet.
  KeyFilePtr unsaved WEXD_GUARDED_BY(key_mutex);
  /// Whether the last write failed, so that what is in the file may not be on the disk.
  bool in_doubt WEXD_GUARDED_BY(key_mutex) = false;
  /// Why the file could not be read or written when that failed last.
  std::string last_error WEXD_GUARDED_BY(key_mutex);
  std::optional<FailedSave> last_failed_save WEXD_GUARDED_BY(key_mutex);
};

Settings settings;

// Settings are kept rather than the port, which may be gone by the time that they can be saved.
void note_as_unsaved(std::span<const ParamGroup> groups) {
  const MutexLock guard(settings.key_mutex);
  settings.last_failed_save = {
      .at_us = boot_time_us(), .reason = settings.last_error, .made_good = false};
  if (settings.unsaved == nullptr) {
    settings.unsaved = key_file_make();
  }
  for (const auto& group : groups) {
    param_group_store(settings.unsaved.get(), group);
  }
}

bool something_is_unsaved() {
  const MutexLock guard(settings.key_mutex);
  return settings.unsaved != nullptr;
}

void change_loaded_file(std::span<const ParamGroup> groups) {
  const MutexLock guard(settings.key_mutex);
  if (settings.unsaved != nullptr) {
    key_file_copy(settings.unsaved.get(), settings.key_file.get());
  }
  for (const auto& group : groups) {
    param_group_store(settings.key_file.get(), group);
  }
}

// Stores the loaded file with these groups, and with what is unsaved from before.
bool store_groups(std::span<const ParamGroup> groups, const char* file) {
  change_loaded_file(groups);
  if (!param_store_key_file(file)) {
    note_as_unsaved(groups);
    return false;
  }
  const MutexLock guard(settings.key_mutex);
  settings.unsaved.reset();
  return true;
}

bool is_loaded() {
  const MutexLock guard(settings.key_mutex);
  return settings.key_file != nullptr;
}

bool save_groups(std::span<const ParamGroup> groups, const char* file) {
  const bool loaded = is_loaded();
  if (!loaded && !param_read_configuration(file)) {
    note_as_unsaved(groups);
    g_return_if_fail_warning(G_LOG_DOMAIN, "param_save_for_port", "param_read_configuration(file)");
    return false;
  }
  const bool saved = store_groups(groups, file);
  if (!loaded) {
    param_close_file();
  }
  return saved;
}

// Whether the file has just these lines for the port, as can be told without reading it.
bool is_known_to_be_saved(const ParamGroup& group, const char* file) {
  const MutexLock guard(settings.key_mutex);
  if (settings.key_file != nullptr || settings.unsaved != nullptr || !settings.on_disk.in_our_form
      || !settings.on_disk.settled || settings.on_disk.path != file
      || !regular_file_is_unchanged(file, settings.on_disk.status)) {
    return false;
  }
  const std::string lines = param_group_text(group);
  return settings.on_disk.text->starts_with(lines)
         || settings.on_disk.text->find("\n" + lines) != std::string::npos;
}

// A missing file is an empty one; one that only cannot be reached must not be
// taken for that, or the next save would leave nothing of it.
KeyFilePtr read_settings(const char* path, GError** error) WEXD_REQUIRES(settings.key_mutex) {
  settings.on_disk = {.path = path, .text = {}};
  g_autoptr(GError) open_error = nullptr;
  const UniqueFd fd =
      regular_file_open(AT_FDCWD, path, Links::Refused, &settings.on_disk.status, &open_error);
  if (g_error_matches(open_error, G_FILE_ERROR, G_FILE_ERROR_NOENT)) {
    return key_file_make();
  }
  std::string text;
  if (!fd) {
    g_propagate_error(error, g_steal_pointer(&open_error));
    return nullptr;
  }
  if (!regular_file_read(fd.get(), path, &text, error)) {
    return nullptr;
  }
  settings.on_disk.settled = regular_file_has_settled(settings.on_disk.status);
  settings.on_disk.text = std::move(text);
  return key_file_parse(*settings.on_disk.text, error);
}

// Flash wears with each write, and each takes the time of a sync.
bool store_settings(const char* path, std::string text, GError** error)
    WEXD_REQUIRES(settings.key_mutex) {
  if (!settings.in_doubt && settings.on_disk.path == path && settings.on_disk.text == text) {
    settings.on_disk.in_our_form = true;
    return true;
  }
  settings.in_doubt = !file_set_contents_synced(path, text, error);
  settings.on_disk = {.path = path, .text = std::move(text)};
  return !settings.in_doubt;
}

// What has a second name, or is only a link, may be somebody else's.
UniqueFd open_to_hand_over(const char* path, struct stat* status, GError** error) {
  UniqueFd fd = regular_file_open(AT_FDCWD, path, Links::Refused, status, error);
  if (fd && status->st_nlink != 1) {
    g_set_error(error, G_FILE_ERROR, G_FILE_ERROR_INVAL, "'%s' has more than one name", path);
    return {};
  }
  return fd;
}

} // namespace

bool param_read_configuration(const char* path) {
  const MutexLock guard(settings.key_mutex);
  g_autoptr(GError) error = nullptr;
  settings.key_file = read_settings(path, &error);
  if (settings.key_file == nullptr) {
    settings.last_error = error->message;
    fprintf(stderr, "Could not read key file: %s\n", error->message);
    return false;
  }
  return true;
}

bool param_store_key_file(const char* path) {
  const MutexLock guard(settings.key_mutex);
  GKeyFile* const key_file = settings.key_file.get();
  WEXD_RETURN_VAL_IF_FAIL(key_file != NULL, false);
  g_autoptr(GError) error = nullptr;
  if (!store_settings(path, key_file_to_text(key_file), &error)) {
    settings.last_error = error->message;
    fprintf(stderr, "Failed to store key file %s: %s\n", path, error->message);
    return false;
  }
  return true;
}

void param_close_file() {
  const MutexLock guard(settings.key_mutex);
  settings.key_file.reset();
}

bool param_get_conf_vals(IoPort* port) {
  const MutexLock guard(settings.key_mutex);
  GKeyFile* const key_file = settings.key_file.get();
  WEXD_RETURN_VAL_IF_FAIL(key_file != NULL, false);
  return param_group_read(key_file, port);
}

bool param_set_conf_vals(IoPort* port) {
  const MutexLock guard(settings.key_mutex);
  GKeyFile* const key_file = settings.key_file.get();
  WEXD_RETURN_VAL_IF_FAIL(key_file != NULL, false);
  return param_group_write(key_file, port);
}

void param_save_for_port(IoPort* port, const char* file) {
  g_assert(port != NULL);
  const auto group = param_group_of(port);
  if (!group) {
    save_groups({}, file);
  } else if (!is_known_to_be_saved(*group, file)) {
    save_groups({&*group, 1}, file);
  }
}

bool param_save_all(const char* file) {
  const IoPortListLock list_lock;
  std::vector<ParamGroup> groups;
  for (IoPort* port : io_port_list_get()) {
    if (port->number < 0 || !io_port_get_property(port, "ioport")) {
      continue;
    }
    if (auto group = param_group_of(port)) {
      groups.push_back(std::move(*group));
    }
  }
  return groups.empty() || save_groups(groups, file);
}

void param_save_unsaved(const char* file) {
  if (something_is_unsaved() && param_read_configuration(file)) {
    store_groups({}, file);
    param_close_file();
  }
}

std::optional<FailedSave> param_last_failed_save() {
  const MutexLock guard(settings.key_mutex);
  auto failed = settings.last_failed_save;
  if (failed) {
    failed->made_good = settings.unsaved == nullptr;
  }
  return failed;
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
  struct stat status {};
  const UniqueFd fd = open_to_hand_over(file, &status, &error);
  if (!fd) {
    g_warning("%sNot handing over settings: %s", log_prefix, error->message);
    return;
  }
  if (status.st_uid == uid && (gid == unchanged || status.st_gid == gid)) {
    return;
  }
  if (fchown(fd.get(), uid, gid) != 0) {
    const int saved_errno = errno;
    std::array<char, 128> buffer{};
    g_warning("%schown failed on file '%s': (%d) %s", log_prefix, file, saved_errno,
              strerror_r(saved_errno, buffer.data(), buffer.size()));
  }
}
