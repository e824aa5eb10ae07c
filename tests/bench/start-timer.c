/*
 * Becomes a service, and leaves how long that took from there until it owned its names.
 *
 *     start-timer RESULT NAME,... COMMAND ...
 *
 * A process of its own watches the bus and writes the microseconds to the file RESULT, which
 * appears when they are known. The service keeps this process's id.
 */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <time.h>
#include <unistd.h>

#define MOST 16

static struct {
  char* names[MOST];
  int count;
} awaited;

static _Noreturn void give_up(const char* what, int error) {
  fprintf(stderr, "%s: %s\n", what, strerror(error));
  _exit(1);
}

static void check(int done, const char* what) {
  if (done < 0)
    give_up(what, -done);
}

static void check_call(int done, const char* what) {
  check(done == -1 ? -errno : done, what);
}

static double now_us(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (double)now.tv_sec * 1e6 + (double)now.tv_nsec / 1e3;
}

static int owner_changed(sd_bus_message* message, void* data, sd_bus_error* error) {
  const char *name = NULL, *before = NULL, *owner = NULL;
  (void)data, (void)error;
  check(sd_bus_message_read(message, "sss", &name, &before, &owner), "signal");
  for (int i = 0; *owner != '\0' && i < awaited.count; ++i)
    if (strcmp(awaited.names[i], name) == 0)
      awaited.names[i] = awaited.names[--awaited.count];
  return 0;
}

static void leave(const char* result, double us) {
  char unfinished[256];
  snprintf(unfinished, sizeof unfinished, "%s.new", result);
  FILE* file = fopen(unfinished, "w");
  if (file == NULL)
    give_up(unfinished, errno);
  fprintf(file, "%.1f\n", us);
  fclose(file);
  check_call(rename(unfinished, result), result);
}

static void watch(const char* result, int ready, int started) {
  sd_bus* bus = NULL;
  double began = 0;
  check(sd_bus_open_system(&bus), "bus");
  check(sd_bus_match_signal(bus, NULL, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                            "org.freedesktop.DBus", "NameOwnerChanged", owner_changed, NULL),
        "match");
  check_call((int)write(ready, "", 1), "ready");
  check_call((int)read(started, &began, sizeof began), "start");
  while (awaited.count > 0) {
    const int done = sd_bus_process(bus, NULL);
    check(done, "bus");
    if (done == 0)
      check(sd_bus_wait(bus, UINT64_MAX), "bus");
  }
  leave(result, now_us() - began);
}

int main(int argc, char** argv) {
  int ready[2], started[2];
  char go = 0;
  if (argc < 4)
    return 2;
  for (char* name; awaited.count < MOST && (name = strsep(&argv[2], ",")) != NULL;)
    awaited.names[awaited.count++] = name;
  check_call(pipe2(ready, O_CLOEXEC), "pipe");
  check_call(pipe2(started, O_CLOEXEC), "pipe");
  const pid_t child = fork();
  check_call(child, "fork");
  if (child == 0) {
    /* Nobody's child, so that the service has none. */
    if (fork() == 0)
      watch(argv[1], ready[1], started[0]);
    _exit(0);
  }
  check_call(waitpid(child, NULL, 0), "wait");
  close(ready[1]);
  if (read(ready[0], &go, 1) != 1)
    return 1;
  const double began = now_us();
  check_call((int)write(started[1], &began, sizeof began), "start");
  execvp(argv[3], argv + 3);
  check(-errno, argv[3]);
}
