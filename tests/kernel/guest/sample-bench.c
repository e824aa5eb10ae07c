/*
 * What a changed sample costs on its way to a program that reads the converter, and to a client of
 * the daemon; and what a signal costs from one bus connection to another. It changes the values and
 * receives by itself: each round takes one sample of each, so that all meet the same moments of a
 * busy machine.
 *
 *     sample-bench BUS ROUNDS LOW HIGH NODE VALUE CHANGED PORT-VALUE PORT-CHANGED
 *
 * NODE is a converter whose buffer runs, at LOW or HIGH. VALUE sets what it samples; CHANGED has the
 * monotonic time in ns at which another value than before went to its buffer. PORT-VALUE and
 * PORT-CHANGED are those of the converter of port 0, whose state is on at HIGH. Each round prints
 * "LOOP BUS PORT" in microseconds; how long a value waits for being sampled is in none of them.
 */
#include "bus-rounds.h"

#include <poll.h>
#include <stdint.h>
#include <string.h>

struct converter {
  const char* values[2]; /* low and high */
  int value;
  const char* changed; /* read to its end once opened */
};

static void set_value(const struct converter* converter, int level)
{
  const char* text = converter->values[level];
  if (write(converter->value, text, strlen(text)) != (ssize_t)strlen(text))
    die("value");
}

static gint64 when_changed(const struct converter* converter)
{
  char text[32] = "";
  const int fd = open_or_die(converter->changed, O_RDONLY);
  if (read(fd, text, sizeof text - 1) <= 0)
    die(converter->changed);
  close(fd);
  return g_ascii_strtoll(text, NULL, 10);
}

static uint16_t next_sample(int node)
{
  struct pollfd ready = {.fd = node, .events = POLLIN};
  uint16_t sample;
  if (poll(&ready, 1, -1) != 1 || read(node, &sample, sizeof sample) != sizeof sample)
    die("sample");
  return sample;
}

static double to_the_loop(const struct converter* converter, int node, int level)
{
  static int32_t last = -1;
  if (last == -1)
    last = next_sample(node);
  set_value(converter, level);
  int32_t sample = next_sample(node);
  while (sample == last)
    sample = next_sample(node);
  const gint64 arrived = now_ns();
  last = sample;
  return (double)(arrived - when_changed(converter)) / 1000;
}

static double to_the_client(const struct converter* converter, const struct bus* bus, int level)
{
  set_value(converter, level);
  wait_until_told(&bus->port_state, level);
  const gint64 arrived = now_ns();
  return (double)(arrived - when_changed(converter)) / 1000;
}

int main(int argc, char** argv)
{
  struct bus bus;
  if (argc != 10)
    return 2;
  const int node = open_or_die(argv[5], O_RDONLY);
  const struct converter polled = {
      {argv[3], argv[4]}, open_or_die(argv[6], O_WRONLY), argv[7]};
  const struct converter ports = {
      {argv[3], argv[4]}, open_or_die(argv[8], O_WRONLY), argv[9]};
  join_bus(&bus, argv[1]);

  const int rounds = WARM_UP + atoi(argv[2]);
  for (int i = 0; i < rounds; ++i) {
    const int level = i % 2; /* both are high at first */
    const double loop_us = to_the_loop(&polled, node, level);
    gint64 moment = now_ns();
    send_signal(&bus, level);
    const double bus_us = us_since(&moment);
    const double port_us = to_the_client(&ports, &bus, level);
    if (i >= WARM_UP)
      printf("%.1f %.1f %.1f\n", loop_us, bus_us, port_us);
  }
  return 0;
}
