// Writing the generated files; what they hold is in legacy-mapping.cpp.
#include "dbus/service-registry.h"

#include "dbus/legacy-mapping.h"
#include "platform/file-sync.h"
#include "platform/log.h"
#include "platform/own-user.h"
#include "platform/regular-file.h"

#include <fcntl.h>
#include <glib.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

namespace {

constexpr const char* registry_file = "/etc/service_registry/services.d/wexd_service_registry.conf";
constexpr const char* mapping_file = "/etc/legacyconfig/legacymappings.d/wexd.xml";

// What went wrong is a warning, one for each file; the reason stands beside it as information.
constexpr const char* hint = "(the folder must be writable by the daemon's user)";

// The start writes as root what the daemon replaces later. In a folder that it shares with others
// it can replace only what is its own.
std::optional<FileOwner> later_owner() {
  const auto* user = geteuid() == 0 ? getpwnam(own_user_name) : nullptr;
  if (user == nullptr) {
    return std::nullopt;
  }
  return FileOwner{.user = user->pw_uid, .group = user->pw_gid};
}

// Whether the text is there already, in a file that the daemon may replace later.
bool is_in_place(const char* target, std::string_view text, const std::optional<FileOwner>& owner) {
  struct stat status {};
  const UniqueFd fd = regular_file_open(AT_FDCWD, target, Links::Refused, &status, nullptr);
  std::string present;
  return fd && (!owner || status.st_uid == owner->user)
         && regular_file_read(fd.get(), target, &present, nullptr) && present == text;
}

bool write_temporary(const char* temporary, std::string_view text,
                     const std::optional<FileOwner>& owner) {
  g_autoptr(GError) error = nullptr;
  if (!file_create_synced(temporary, text, owner, &error)) {
    g_info("%s%s %s", log_prefix, error->message, hint);
    return false;
  }
  return true;
}

std::string beside(const char* target) {
  g_autofree gchar* folder = g_path_get_dirname(target);
  g_autofree gchar* name = g_path_get_basename(target);
  return std::string(folder) + "/." + name + ".new";
}

void warn_not_moved(const char* temporary, const char* target, int reason) {
  g_warning("%sCouldn't move service registry file correctly", log_prefix);
  g_info("%sCould not rename %s to %s: %s %s", log_prefix, temporary, target, g_strerror(reason),
         hint);
}

// No file is moved from one mount to another, and each folder is one of its own where a sandbox
// lets the daemon write these alone. What lies beside the target is on its mount.
void replace_from_beside(const char* target, std::string_view text,
                         const std::optional<FileOwner>& owner) {
  const auto temporary = beside(target);
  if (!write_temporary(temporary.c_str(), text, owner)) {
    warn_not_moved(legacy_temporary_file, target, EXDEV);
  } else if (rename(temporary.c_str(), target) == 0) {
    unlink(legacy_temporary_file);
  } else {
    warn_not_moved(temporary.c_str(), target, errno);
    unlink(temporary.c_str());
  }
}

// The reader of the target must never meet half a file.
void replace(const char* target, std::string_view text, const std::optional<FileOwner>& owner) {
  if (rename(legacy_temporary_file, target) == 0) {
    return;
  }
  if (errno == EXDEV) {
    replace_from_beside(target, text, owner);
  } else {
    warn_not_moved(legacy_temporary_file, target, errno);
  }
}

// False when the text could not be written at all.
bool bring_in_place(const char* target, std::string_view text,
                    const std::optional<FileOwner>& owner) {
  unlink(beside(target).c_str()); // of a life that broke off
  if (is_in_place(target, text, owner)) {
    return true;
  }
  if (!write_temporary(legacy_temporary_file, text, owner)) {
    return false;
  }
  replace(target, text, owner);
  return true;
}

} // namespace

void generate_service_registry() {
  const auto owner = later_owner();
  if (!bring_in_place(registry_file, legacy_registry_text(), owner)) {
    g_warning("%sCouldn't write to service registry", log_prefix);
  }
  if (!bring_in_place(mapping_file, legacy_mapping_text(), owner)) {
    g_warning("%sCouldn't write to legacy mappings", log_prefix);
  }
}
