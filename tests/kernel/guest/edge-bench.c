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
#include "bus-rounds.h"

#include <linux/gpio.h>
#include <poll.h>
#include <string.h>
#include <sys/ioctl.h>

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

static void move_port(const struct bus* bus, int fd, int level)
{
  pull(fd, level);
  wait_until_told(&bus->port_state, level);
}

int main(int argc, char** argv)
{
  struct bus bus;
  if (argc != 7)
    return 2;
  const gboolean requested = strcmp(argv[5], "-") != 0;
  struct line line = {
      .fd = requested ? request_line(argv[4], argv[5]) : open_or_die(argv[4], O_RDONLY),
      .pull = open_or_die(argv[3], O_WRONLY),
      .requested = requested,
  };
  const int port_pull = open_or_die(argv[6], O_WRONLY);
  join_bus(&bus, argv[1]);
  begin_to_watch(&line);

  const int rounds = WARM_UP + atoi(argv[2]);
  for (int i = 0; i < rounds; ++i) {
    const int level = 1 - i % 2;
    gint64 moment = now_ns();
    move_polled_line(&line, level);
    const double loop_us = us_since(&moment);
    send_signal(&bus, level);
    const double bus_us = us_since(&moment);
    move_port(&bus, port_pull, level);
    const double port_us = us_since(&moment);
    if (i >= WARM_UP)
      printf("%.1f %.1f %.1f\n", loop_us, bus_us, port_us);
  }
  return 0;
}
