/*
 * What an edge costs on its way to a program that polls the line, and to a
 * client of the daemon; and what a signal costs from one bus connection to
 * another. It sends and receives by itself: each round takes one sample of
 * each, so that all meet the same moments of a busy machine.
 *
 *     edge-bench BUS ROUNDS PULL VALUE-FILE - PORT-PULL [MANAGED-PULL CHIP-OBJECT OFFSET]
 *     edge-bench BUS ROUNDS PULL CHIP OFFSET  PORT-PULL [MANAGED-PULL CHIP-OBJECT OFFSET]
 *
 * PULL is the file that moves the polled line, which is an exported one with
 * edges chosen, or is requested on its chip; PORT-PULL moves the line of port
 * 0, and MANAGED-PULL one that libgpiod's manager is asked to watch. Each
 * round prints "LOOP BUS PORT [MANAGED]" in microseconds.
 */
#include "bus-rounds.h"

#include <linux/gpio.h>
#include <poll.h>
#include <string.h>
#include <sys/ioctl.h>

#define MANAGER "io.gpiod1"

struct line {
  int fd;
  int pull;
  gboolean requested;
};

static void pull(int fd, int level)
{
  lseek(fd, 0, SEEK_SET); /* a plain file needs it, the kernel's files know no place */
  if (write(fd, level ? "1" : "0", 1) != 1)
    die("pull");
}

static int request_line(const char* chip, const char* offset)
{
  struct gpio_v2_line_request wish = {
      .num_lines = 1,
      .offsets = {(unsigned)atoi(offset)},
      .consumer = "edge-bench",
      .config.flags = GPIO_V2_LINE_FLAG_INPUT | GPIO_V2_LINE_FLAG_EDGE_RISING |
                      GPIO_V2_LINE_FLAG_EDGE_FALLING,
  };
  int fd = open_or_die(chip, O_RDONLY);
  if (ioctl(fd, GPIO_V2_GET_LINE_IOCTL, &wish) == -1)
    die(chip);
  close(fd);
  return wish.fd;
}

static int level_of_value_file(int fd)
{
  char text = 0;
  if (pread(fd, &text, 1, 0) != 1)
    die("value");
  return text == '1';
}

static int level_of_requested_line(int fd)
{
  struct gpio_v2_line_event event;
  struct gpio_v2_line_values values = {.mask = 1};
  if (read(fd, &event, sizeof event) != sizeof event ||
      ioctl(fd, GPIO_V2_LINE_GET_VALUES_IOCTL, &values) == -1)
    die("line");
  return (int)(values.bits & 1);
}

static void move_polled_line(struct line* line, int level)
{
  struct pollfd ready = {.fd = line->fd, .events = line->requested ? POLLIN : POLLPRI};
  pull(line->pull, level);
  if (poll(&ready, 1, -1) != 1)
    die("poll");
  if ((line->requested ? level_of_requested_line : level_of_value_file)(line->fd) != level)
    die("another level");
}

/* Nothing that the line did so far counts as an edge, and all that it does from now on. */
static void begin_to_watch(struct line* line)
{
  struct pollfd now = {.fd = line->fd, .events = POLLPRI};
  if (line->requested)
    return;
  poll(&now, 1, 0);
  level_of_value_file(line->fd);
}

static void move_and_wait(int fd, const int* told, int level)
{
  pull(fd, level);
  wait_until_told(told, level);
}

static void on_edge(GDBusConnection* bus, const char* sender, const char* path, const char* iface,
                    const char* name, GVariant* values, gpointer data)
{
  (void)bus, (void)sender, (void)path, (void)iface, (void)name;
  g_variant_get(values, "((ittt))", data, NULL, NULL, NULL);
}

/* Has the manager watch a line, and is told of its edges from now on. */
static void have_managed(GDBusConnection* bus, const char* chip, const char* offset, int* told)
{
  GError* error = NULL;
  char* line = g_strdup_printf("%s/line%s", chip, offset);
  g_dbus_connection_signal_subscribe(bus, NULL, MANAGER ".Line", "EdgeEvent", line, NULL, 0, on_edge,
                                     told, NULL);
  GVariant* answer = g_dbus_connection_call_sync(
      bus, MANAGER, chip, MANAGER ".Chip", "RequestLines",
      g_variant_new_parsed(
          "(([([%u], {'direction': <'input'>, 'edge': <'both'>})], @ai []), @a{sv} {})",
          (guint32)atoi(offset)),
      NULL, G_DBUS_CALL_FLAGS_NONE, -1, NULL, &error);
  if (answer == NULL) {
    fprintf(stderr, "%s: %s\n", line, error->message);
    exit(1);
  }
  g_variant_unref(answer);
  g_free(line);
}

int main(int argc, char** argv)
{
  struct bus bus;
  int managed_state = -1;
  if (argc != 7 && argc != 10)
    return 2;
  const gboolean requested = strcmp(argv[5], "-") != 0;
  struct line line = {
      .fd = requested ? request_line(argv[4], argv[5]) : open_or_die(argv[4], O_RDONLY),
      .pull = open_or_die(argv[3], O_WRONLY),
      .requested = requested,
  };
  const int port_pull = open_or_die(argv[6], O_WRONLY);
  const int managed_pull = argc == 10 ? open_or_die(argv[7], O_WRONLY) : -1;
  join_bus(&bus, argv[1]);
  if (managed_pull != -1)
    have_managed(bus.receiver, argv[8], argv[9], &managed_state);
  begin_to_watch(&line);

  const int rounds = WARM_UP + atoi(argv[2]);
  for (int i = 0; i < rounds; ++i) {
    const int level = 1 - i % 2;
    gint64 moment = now_ns();
    move_polled_line(&line, level);
    const double loop_us = us_since(&moment);
    send_signal(&bus, level);
    const double bus_us = us_since(&moment);
    move_and_wait(port_pull, &bus.port_state, level);
    const double port_us = us_since(&moment);
    if (managed_pull != -1)
      move_and_wait(managed_pull, &managed_state, level);
    const double managed_us = us_since(&moment);
    if (i >= WARM_UP)
      printf(managed_pull == -1 ? "%.1f %.1f %.1f\n" : "%.1f %.1f %.1f %.1f\n", loop_us, bus_us,
             port_us, managed_us);
  }
  return 0;
}
