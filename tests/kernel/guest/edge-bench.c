/*
 * What an edge costs on its way to a program that polls the line, and to a
 * client of the daemon; and what a signal costs from one bus connection to
 * another. It sends and receives by itself: each round takes one sample of
 * each, so that all meet the same moments of a busy machine.
 *
 *     edge-bench BUS ROUNDS PULL VALUE-FILE - PORT-PULL
 *     edge-bench BUS ROUNDS PULL CHIP OFFSET  PORT-PULL
 *
 * PULL is the file that moves the polled line, which is an exported one with
 * edges chosen, or is requested on its chip; PORT-PULL moves the line of port
 * 0. Each round prints "LOOP BUS PORT" in microseconds.
 */
#include <fcntl.h>
#include <gio/gio.h>
#include <linux/gpio.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#define STATE "com.norv.IOControl.State"
#define STATE_PATH "/com/norv/IOControl/State"
#define FLOOR "bench.Floor"
#define WARM_UP 20

struct line {
  int fd;
  int pull;
  gboolean requested;
};

/* What the floor's signal and the port's told last; each round tells another level than the last. */
static int floor_level = -1;
static int port_level = -1;

static void die(const char* what)
{
  perror(what);
  exit(1);
}

static int open_or_die(const char* path, int flags)
{
  int fd = open(path, flags);
  if (fd == -1)
    die(path);
  return fd;
}

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

static void on_signal(GDBusConnection* bus, const char* sender, const char* path, const char* iface,
                      const char* name, GVariant* values, gpointer data)
{
  gboolean state = FALSE;
  (void)bus, (void)sender, (void)path, (void)iface, (void)name;
  g_variant_get_child(values, 5, "b", &state);
  *(int*)data = state;
}

static GDBusConnection* connect_to(const char* address)
{
  return g_dbus_connection_new_for_address_sync(
      address,
      G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION,
      NULL, NULL, NULL);
}

static void listen_to(GDBusConnection* bus, const char* iface, const char* path, int* told)
{
  g_dbus_connection_signal_subscribe(bus, NULL, iface, "PortChanged", path, NULL, 0, on_signal, told,
                                     NULL);
}

/* What is answered after the wishes to listen was granted after them. */
static void wait_for_the_bus(GDBusConnection* bus)
{
  GVariant* answer = g_dbus_connection_call_sync(
      bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId", NULL,
      NULL, G_DBUS_CALL_FLAGS_NONE, -1, NULL, NULL);
  if (answer == NULL)
    exit(1);
  g_variant_unref(answer);
}

static void wait_until_told(const int* told, int level)
{
  while (*told != level)
    g_main_context_iteration(NULL, TRUE);
}

static void send_signal(GDBusConnection* sender, int level)
{
  g_dbus_connection_emit_signal(
      sender, NULL, "/bench", FLOOR, "PortChanged",
      g_variant_new("(ibbbbbb)", 0, FALSE, FALSE, TRUE, FALSE, level, FALSE), NULL);
  wait_until_told(&floor_level, level);
}

static void move_port(int fd, int level)
{
  pull(fd, level);
  wait_until_told(&port_level, level);
}

static double us_since(gint64* started)
{
  struct timespec now;
  gint64 before = *started;
  clock_gettime(CLOCK_MONOTONIC, &now);
  *started = now.tv_sec * G_GINT64_CONSTANT(1000000000) + now.tv_nsec;
  return (double)(*started - before) / 1000;
}

int main(int argc, char** argv)
{
  if (argc != 7)
    return 2;
  const gboolean requested = strcmp(argv[5], "-") != 0;
  struct line line = {
      .fd = requested ? request_line(argv[4], argv[5]) : open_or_die(argv[4], O_RDONLY),
      .pull = open_or_die(argv[3], O_WRONLY),
      .requested = requested,
  };
  const int port_pull = open_or_die(argv[6], O_WRONLY);
  GDBusConnection* sender = connect_to(argv[1]);
  GDBusConnection* receiver = connect_to(argv[1]);
  if (sender == NULL || receiver == NULL)
    return 1;
  listen_to(receiver, FLOOR, "/bench", &floor_level);
  listen_to(receiver, STATE, STATE_PATH, &port_level);
  wait_for_the_bus(receiver);
  begin_to_watch(&line);

  const int rounds = WARM_UP + atoi(argv[2]);
  for (int i = 0; i < rounds; ++i) {
    gint64 moment = 0;
    us_since(&moment);
    move_polled_line(&line, 1 - i % 2);
    const double loop_us = us_since(&moment);
    send_signal(sender, 1 - i % 2);
    const double bus_us = us_since(&moment);
    move_port(port_pull, 1 - i % 2);
    const double port_us = us_since(&moment);
    if (i >= WARM_UP)
      printf("%.1f %.1f %.1f\n", loop_us, bus_us, port_us);
  }
  return 0;
}
