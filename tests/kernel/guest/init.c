/*
 * First process of the bench guest, linked statically because nothing but this
 * file stands on the guest's root: puts the file systems together, runs the
 * session and ends the machine. Whatever the session has to say is in the
 * files that it leaves on the writable share; the machine's own end says
 * nothing.
 */
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/wait.h>
#include <unistd.h>

struct mount_point {
  const char* source;
  const char* target;
  const char* type;
  unsigned long flags;
  const char* options;
};

#define SHARE "trans=virtio,version=9p2000.L,msize=262144"

static const struct mount_point mount_points[] = {
    {"proc", "/proc", "proc", 0, NULL},
    {"sysfs", "/sys", "sysfs", 0, NULL},
    {"devtmpfs", "/dev", "devtmpfs", 0, NULL},
    {"tmpfs", "/tmp", "tmpfs", 0, NULL},
    {"tmpfs", "/run", "tmpfs", 0, NULL},
    {"tmpfs", "/etc", "tmpfs", 0, NULL},
    {"debugfs", "/sys/kernel/debug", "debugfs", 0, NULL},
    {"configfs", "/sys/kernel/config", "configfs", 0, NULL},
    {"usr", "/host", "9p", MS_RDONLY, SHARE ",cache=loose"},
    {"bench", "/bench", "9p", MS_RDONLY, SHARE ",cache=loose"},
    {"out", "/out", "9p", 0, SHARE},
};

static int mount_all(void)
{
  for (unsigned i = 0; i < sizeof mount_points / sizeof *mount_points; ++i) {
    const struct mount_point* m = &mount_points[i];
    if (mount(m->source, m->target, m->type, m->flags, m->options) == -1) {
      printf("init: cannot mount %s: %s\n", m->target, strerror(errno));
      return -1;
    }
  }
  return 0;
}

static void run_session(void)
{
  static char* const arguments[] = {"/usr/bin/python3", "/bench/guest/session.py", NULL};
  static char* const environment[] = {
      "PATH=/usr/sbin:/usr/bin", "HOME=/tmp", "LANG=C.UTF-8",
      "PYTHONPATH=/bench", "PYTHONPYCACHEPREFIX=/run/pycache", NULL,
  };
  pid_t session = fork();
  if (session == 0) {
    execve(arguments[0], arguments, environment);
    printf("init: cannot run %s: %s\n", arguments[0], strerror(errno));
    _exit(127);
  }
  while (session > 0 && wait(NULL) != session)
    ;
}

int main(void)
{
  setvbuf(stdout, NULL, _IOLBF, 0);
  if (mount_all() == 0)
    run_session();
  sync();
  reboot(RB_AUTOBOOT);
  return 1;
}
