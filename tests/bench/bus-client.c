/*
 * What a service answers and how fast, seen by a client that does next to nothing itself.
 *
 *     bus-client ADDRESS latency ROUNDS CALL,... SUBJECT=NAME ...
 *         each round calls each method of each service by turns: "call,subject,round,us"
 *     bus-client ADDRESS repeat TIMES CALL NAME
 *         calls one method so often
 *     bus-client ADDRESS changes SUBSCRIBERS BLOCKS TIMES BUS-PID SUBJECT=NAME=PID ...
 *         has the services by turns change a state so often, told to so many connections:
 *         "subject,block,us of the service,us of the bus" for one change
 *
 * Services are told by their unique names, which spares the bus a look-up.
 */
#include "bench-ports.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <systemd/sd-bus.h>
#include <time.h>

#define STATE "com.norv.IOControl.State"
#define LEGACY "com.norv.Configuration.Legacy.IOControl1.IOPort"
#define PORT 1u
#define MOST 128
#define WARM_UP 50

enum arguments { NONE, ANY_PORT, TOGGLE, SAME, LEGACY_NAME };

static const struct call {
  const char* what;
  const char* interface;
  const char* member;
  enum arguments arguments;
} calls[] = {
    {"Ping", "org.freedesktop.DBus.Peer", "Ping", NONE},
    {"GetState", STATE, "GetState", ANY_PORT},
    {"SetState", STATE, "SetState", SAME},
    {"SetState that toggles", STATE, "SetState", TOGGLE},
    {"GetPortProps", STATE, "GetPortProps", NONE},
    {"GetAll", "org.freedesktop.DBus.Properties", "GetAll", LEGACY_NAME},
};

struct subject {
  const char* title;
  const char* name;
  clockid_t clock;
  int toggled;
};

static void check(int done, const char* what) {
  if (done < 0) {
    fprintf(stderr, "%s: %s\n", what, strerror(-done));
    exit(1);
  }
}

static double now_us(clockid_t clock) {
  struct timespec now;
  if (clock_gettime(clock, &now) == -1)
    check(-errno, "clock");
  return (double)now.tv_sec * 1e6 + (double)now.tv_nsec / 1e3;
}

static sd_bus* connect_to(const char* address) {
  sd_bus* bus = NULL;
  check(sd_bus_new(&bus), "connection");
  check(sd_bus_set_address(bus, address), address);
  check(sd_bus_set_bus_client(bus, 1), "connection");
  check(sd_bus_start(bus), address);
  const char* own = NULL;
  check(sd_bus_get_unique_name(bus, &own), "welcome");
  return bus;
}

static const struct call* find_call(const char* what) {
  for (size_t i = 0; i < sizeof calls / sizeof *calls; ++i)
    if (strcmp(calls[i].what, what) == 0)
      return &calls[i];
  fprintf(stderr, "no such call: %s\n", what);
  exit(2);
}

static void make_call(sd_bus* bus, const struct call* call, struct subject* subject) {
  const char* path = call->arguments == LEGACY_NAME ? legacy_path : state_path;
  sd_bus_message* message = NULL;
  check(sd_bus_message_new_method_call(bus, &message, subject->name, path, call->interface,
                                       call->member),
        call->member);
  switch (call->arguments) {
  case NONE:
    break;
  case ANY_PORT:
    check(sd_bus_message_append(message, "u", PORT), call->member);
    break;
  case TOGGLE:
    subject->toggled = !subject->toggled;
    check(sd_bus_message_append(message, "ub", PORT, subject->toggled), call->member);
    break;
  case SAME:
    check(sd_bus_message_append(message, "ub", PORT, subject->toggled), call->member);
    break;
  case LEGACY_NAME:
    check(sd_bus_message_append(message, "s", LEGACY), call->member);
    break;
  }
  check(sd_bus_call(bus, message, 0, NULL, NULL), call->what);
  sd_bus_message_unref(message);
}

/* TITLE=NAME or TITLE=NAME=PID, taken apart in place. */
static struct subject subject_of(char* text) {
  struct subject subject = {.title = strsep(&text, "="), .name = strsep(&text, "=")};
  if (subject.name == NULL)
    exit(2);
  if (text != NULL)
    check(-clock_getcpuclockid(atoi(text), &subject.clock), subject.title);
  return subject;
}

static int subjects_of(char** texts, int count, struct subject* subjects) {
  if (count < 1 || count > MOST)
    exit(2);
  for (int i = 0; i < count; ++i)
    subjects[i] = subject_of(texts[i]);
  return count;
}

static void latency(const char* address, int rounds, char* whats, char** texts, int count) {
  struct subject subjects[MOST];
  const struct call* chosen[MOST];
  int calls_chosen = 0;
  sd_bus* bus = connect_to(address);
  subjects_of(texts, count, subjects);
  for (char* what; (what = strsep(&whats, ",")) != NULL && calls_chosen < MOST;)
    chosen[calls_chosen++] = find_call(what);
  for (int round = -WARM_UP; round < rounds; ++round)
    for (int c = 0; c < calls_chosen; ++c)
      for (int s = 0; s < count; ++s) {
        /* Whoever is called first in a round is another one each time. */
        struct subject* subject = &subjects[(s + WARM_UP + round) % count];
        const double started = now_us(CLOCK_MONOTONIC);
        make_call(bus, chosen[c], subject);
        const double us = now_us(CLOCK_MONOTONIC) - started;
        if (round >= 0)
          printf("%s,%s,%d,%.1f\n", chosen[c]->what, subject->title, round, us);
      }
  sd_bus_flush_close_unref(bus);
}

static void repeat(const char* address, int times, const char* what, char* name) {
  struct subject subject = {.name = name};
  sd_bus* bus = connect_to(address);
  const struct call* call = find_call(what);
  for (int i = 0; i < times; ++i)
    make_call(bus, call, &subject);
  sd_bus_flush_close_unref(bus);
}

static int told(sd_bus_message* message, void* data, sd_bus_error* error) {
  (void)message, (void)error;
  ++*(int*)data;
  return 0;
}

static void wait_until_told(sd_bus* bus, const int* count, int wanted) {
  while (*count < wanted) {
    const int done = sd_bus_process(bus, NULL);
    check(done, "signals");
    if (done == 0)
      check(sd_bus_wait(bus, UINT64_MAX), "signals");
  }
}

static void changes(const char* address, int listeners, int blocks, int times, char* bus_pid,
                    char** texts, int count) {
  struct subject subjects[MOST];
  sd_bus* listening[MOST];
  int heard[MOST] = {0};
  int wanted = 0;
  clockid_t bus_clock;
  sd_bus* bus = connect_to(address);
  /* An even number leaves the state as it was, so that the first change is one for the next client.
   */
  if (listeners > MOST || times % 2 != 0)
    exit(2);
  subjects_of(texts, count, subjects);
  check(-clock_getcpuclockid(atoi(bus_pid), &bus_clock), "the bus");
  for (int i = 0; i < listeners; ++i) {
    listening[i] = connect_to(address);
    check(sd_bus_match_signal(listening[i], NULL, NULL, state_path, STATE, "PortChanged", told,
                              &heard[i]),
          "match");
  }
  const struct call* toggle = find_call("SetState that toggles");
  for (int block = -1; block < blocks; ++block)
    for (int s = 0; s < count; ++s) {
      const double own = now_us(subjects[s].clock);
      const double on_bus = now_us(bus_clock);
      for (int i = 0; i < times; ++i)
        make_call(bus, toggle, &subjects[s]);
      wanted += times;
      for (int i = 0; i < listeners; ++i)
        wait_until_told(listening[i], &heard[i], wanted);
      if (block >= 0)
        printf("%s,%d,%.2f,%.2f\n", subjects[s].title, block,
               (now_us(subjects[s].clock) - own) / times, (now_us(bus_clock) - on_bus) / times);
    }
  for (int i = 0; i < listeners; ++i)
    sd_bus_flush_close_unref(listening[i]);
  sd_bus_flush_close_unref(bus);
}

int main(int argc, char** argv) {
  if (argc >= 6 && strcmp(argv[2], "latency") == 0)
    latency(argv[1], atoi(argv[3]), argv[4], argv + 5, argc - 5);
  else if (argc == 6 && strcmp(argv[2], "repeat") == 0)
    repeat(argv[1], atoi(argv[3]), argv[4], argv[5]);
  else if (argc >= 8 && strcmp(argv[2], "changes") == 0)
    changes(argv[1], atoi(argv[3]), atoi(argv[4]), atoi(argv[5]), argv[6], argv + 7, argc - 7);
  else
    return 2;
  return 0;
}
