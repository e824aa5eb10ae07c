#include "support/child.h"

#include "support/scratch.h"

#include <glib.h>
#include <grp.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>

namespace {

constexpr uid_t nobody = 65534;

std::string read_all(int fd) {
  std::string all;
  std::array<char, 4096> part{};
  ssize_t length = 0;
  while ((length = read(fd, part.data(), part.size())) > 0) {
    all.append(part.data(), static_cast<gsize>(length));
  }
  return all;
}

void write_map(const char* file, unsigned int id) {
  overwrite_file(file, "0 " + std::to_string(id) + " 1\n");
}

bool enter_mount_namespace() {
  if (geteuid() == 0) {
    return unshare(CLONE_NEWNS) == 0
           && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
  }
  const uid_t uid = geteuid();
  const gid_t gid = getegid();
  if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
    return false;
  }
  overwrite_file("/proc/self/setgroups", "deny");
  write_map("/proc/self/uid_map", uid);
  write_map("/proc/self/gid_map", gid);
  return true;
}

bool become_nobody() {
  return setgroups(0, nullptr) == 0 && setresgid(nobody, nobody, nobody) == 0
         && setresuid(nobody, nobody, nobody) == 0;
}

// What is left to the root of a user namespace that has no other user.
bool lose_privileges() {
  __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
  const std::array<__user_cap_data_struct, 2> none{};
  return syscall(SYS_capset, &header, none.data()) == 0;
}

} // namespace

std::string in_child(const std::function<std::string()>& body) {
  std::array<int, 2> ends{};
  g_assert(pipe(ends.data()) == 0);
  // Without the handlers of fork(): one of them starts the thread sanitizer's thread in the child
  // again, and only a process of one thread may enter a user namespace.
  const pid_t child = _Fork();
  g_assert(child >= 0);
  if (child == 0) {
    const std::string text = body();
    const bool told = write(ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size());
    _exit(told ? 0 : 1);
  }
  close(ends[1]);
  std::string text = read_all(ends[0]);
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? text : "(child died) " + text;
}

std::string as_ordinary_user(const std::function<std::string()>& body) {
  return in_child([&]() -> std::string {
    if (geteuid() == 0 && !become_nobody() && !lose_privileges()) {
      return "(could not become an ordinary user)";
    }
    return body();
  });
}

std::string with_small_disk(const std::string& folder, int kilobytes,
                            const std::function<std::string()>& body) {
  return in_child([&]() -> std::string {
    const std::string options = "mode=0777,size=" + std::to_string(kilobytes) + "k";
    if (!enter_mount_namespace()
        || mount("tmpfs", folder.c_str(), "tmpfs", 0, options.c_str()) != 0) {
      return std::string("(could not mount: ") + g_strerror(errno) + ")";
    }
    return body();
  });
}
