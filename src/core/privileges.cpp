#include "core/privileges.h"

#include "platform/own-user.h"

#include <grp.h>
#include <linux/capability.h>
#include <pwd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

// What is not inheritable cannot be ambient either; the kernel sees to that.
void drop_inheritable_capabilities() {
  __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
  std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> sets{};
  const bool known = syscall(SYS_capget, &header, sets.data()) == 0;
  for (auto& set : sets) {
    set.inheritable = 0;
  }
  if (!known || syscall(SYS_capset, &header, sets.data()) != 0) {
    fprintf(stderr, "Failed dropping capabilities: %s\n", strerror(errno));
  }
}

void drop_privileges() {
  const auto* user = getpwnam(own_user_name);
  if (user == nullptr) {
    fprintf(stderr, "Couldn't get uid for user \"%s\".\n", own_user_name);
    return;
  }
  const uid_t uid = user->pw_uid;
  const auto* group = getgrnam(own_user_name);
  if (group == nullptr) {
    fprintf(stderr, "Couldn't get gid for group \"%s\".\n", own_user_name);
    return;
  }
  const gid_t gid = group->gr_gid;
  if (setgid(gid) != 0) {
    fprintf(stderr, "Failed setting gid to %d: %s\n", gid, strerror(errno));
    return;
  }
  if (initgroups(own_user_name, gid) != 0) {
    fprintf(stderr, "Unable to run initgroups() with username: %s, gid: %d: %s\n", own_user_name,
            gid, strerror(errno));
    return;
  }
  if (setuid(uid) != 0) {
    fprintf(stderr, "Failed setting uid to %d: %s\n", uid, strerror(errno));
  }
}
