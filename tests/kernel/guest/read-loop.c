/*
 * The least that a reader of converters can do: waits for any of the given
 * device nodes, reads one sample of two bytes from each that is ready, and
 * starts over. It is what the daemon is measured beside.
 *
 *     read-loop NODE ...
 *
 * For every sample whose value is another than the node's last one, a line
 * with the monotonic time in ns goes to standard output.
 */
#include <fcntl.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#define NODES 16

static long long now_ns(void)
{
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000000000LL + now.tv_nsec;
}

int main(int argc, char** argv)
{
  struct pollfd nodes[NODES];
  uint16_t last[NODES] = {0};
  int count = argc - 1;

  if (count < 1 || count > NODES)
    return 2;
  for (int i = 0; i < count; ++i) {
    nodes[i] = (struct pollfd){.fd = open(argv[i + 1], O_RDONLY), .events = POLLIN};
    if (nodes[i].fd == -1) {
      perror(argv[i + 1]);
      return 1;
    }
  }
  setvbuf(stdout, NULL, _IOLBF, 0);
  while (poll(nodes, count, -1) > 0) {
    for (int i = 0; i < count; ++i) {
      uint16_t sample;
      if (!(nodes[i].revents & POLLIN))
        continue;
      if (read(nodes[i].fd, &sample, sizeof sample) != sizeof sample)
        return 1;
      if (sample != last[i])
        printf("%lld\n", now_ns());
      last[i] = sample;
    }
  }
  return 1;
}
