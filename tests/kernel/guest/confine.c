/*
 * Runs a program with the file system as systemd shows it to a service that is
 * strictly protected and kept from the kernel's tunables: read-only but for
 * /dev, /proc and the places before the "--". A place that is absent counts
 * for nothing.
 *
 *     confine PLACE ... -- PROGRAM ARGUMENT ...
 *
 * A script would start a program for every mount, which takes the emulated
 * machine seconds.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <mntent.h>
#include <sched.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <unistd.h>

static void fail(const char* what, const char* where)
{
  fprintf(stderr, "confine: %s %s: %s\n", what, where, strerror(errno));
  exit(125);
}

static bool lies_in(const char* path, const char* place)
{
  size_t length = strlen(place);
  return strncmp(path, place, length) == 0 && (path[length] == '/' || path[length] == '\0');
}

static bool is_writable(const char* path, char** places)
{
  if (lies_in(path, "/dev") || lies_in(path, "/proc"))
    return true;
  for (; strcmp(*places, "--") != 0; ++places)
    if (lies_in(path, *places))
      return true;
  return false;
}

static void protect_mounts(char** places)
{
  FILE* mounts = setmntent("/proc/self/mounts", "r");
  if (mounts == NULL)
    fail("cannot read", "/proc/self/mounts");
  for (struct mntent* entry = getmntent(mounts); entry != NULL; entry = getmntent(mounts))
    if (!is_writable(entry->mnt_dir, places)
        && mount(NULL, entry->mnt_dir, NULL, MS_REMOUNT | MS_BIND | MS_RDONLY, NULL) == -1)
      fail("cannot protect", entry->mnt_dir);
  endmntent(mounts);
}

int main(int argc, char** argv)
{
  char** places = argv + 1;
  char** rest = places;

  if (unshare(CLONE_NEWNS) == -1 || mount(NULL, "/", NULL, MS_REC | MS_PRIVATE, NULL) == -1)
    fail("cannot leave", "the name space");
  for (; rest < argv + argc && strcmp(*rest, "--") != 0; ++rest)
    if (mount(*rest, *rest, NULL, MS_BIND | MS_REC, NULL) == -1 && errno != ENOENT)
      fail("cannot keep writable", *rest);
  if (rest + 1 >= argv + argc)
    return fprintf(stderr, "usage: confine PLACE ... -- PROGRAM ARGUMENT ...\n"), 125;
  protect_mounts(places);
  execvp(rest[1], rest + 1);
  fail("cannot run", rest[1]);
}
