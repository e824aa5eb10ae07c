/*
 * The least that a reader of converters can do: waits for any of the given
 * device nodes, reads one sample of two bytes from each that is ready, and
 * starts over. It is what the daemon is measured beside.
 *
 *     read-loop NODE ...
 */
#include <fcntl.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <unistd.h>

#define NODES 16

int main(int argc, char** argv)
{
  struct pollfd nodes[NODES];
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
  while (poll(nodes, count, -1) > 0) {
    for (int i = 0; i < count; ++i) {
      uint16_t sample;
      if (!(nodes[i].revents & POLLIN))
        continue;
      if (read(nodes[i].fd, &sample, sizeof sample) != sizeof sample)
        return 1;
    }
  }
  return 1;
}
