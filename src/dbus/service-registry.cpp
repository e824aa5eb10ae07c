// Writing the generated files; what they hold is in legacy-mapping.cpp.
#include "dbus/service-registry.h"

#include "dbus/legacy-mapping.h"
#include "platform/handles.h"
#include "platform/log.h"

#include <fcntl.h>
#include <glib.h>

#include <cerrno>
#include <cstdio>
#include <string>

namespace {

constexpr const char* registry_file = "/etc/service_registry/services.d/wexd_service_registry.conf";
constexpr const char* mapping_file = "/etc/legacyconfig/legacymappings.d/wexd.xml";
constexpr const char* temporary_file = "/etc/wexd.d/legacy.tmp";

// The reader of the target must never meet half a file.
void write_through_temporary(const std::string& text, const char* target,
                             const char* write_failed) {
  g_autoptr(GError) error = nullptr;
  if (!g_file_set_contents(temporary_file, text.c_str(), static_cast<gssize>(text.size()),
                           &error)) {
    g_warning("%s%s", log_prefix, write_failed);
    g_warning("%s%s (its folder must be writable by the daemon's user)", log_prefix,
              error->message);
    return;
  }
  if (const UniqueFd fd(open(temporary_file, O_RDONLY | O_CLOEXEC)); fd) {
    fsync(fd.get());
  }
  if (rename(temporary_file, target) != 0) {
    const int saved_errno = errno;
    g_warning("%sCouldn't move service registry file correctly", log_prefix);
    g_warning("%sCould not rename %s to %s: %s (the folder must be writable by the daemon's user)",
              log_prefix, temporary_file, target, g_strerror(saved_errno));
  }
}

} // namespace

void generate_service_registry() {
  write_through_temporary(legacy_registry_text(), registry_file,
                          "Couldn't write to service registry");
  write_through_temporary(legacy_mapping_text(), mapping_file, "Couldn't write to legacy mappings");
}
