/*
 * What the benchmarks of the guest share: a sender and a receiver on the bus, and the clock. What a
 * state was last told to be is kept as 0 or 1; each round tells another one than the round before.
 */
#ifndef BUS_ROUNDS_H
#define BUS_ROUNDS_H

#include <fcntl.h>
#include <gio/gio.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#define STATE "com.norv.IOControl.State"
#define STATE_PATH "/com/norv/IOControl/State"
#define FLOOR "bench.Floor"
#define WARM_UP 20

/* Two connections, and what the receiver was told last by the sender and by the port. */
struct bus {
  GDBusConnection* sender;
  GDBusConnection* receiver;
  int floor_state;
  int port_state;
};

static inline void die(const char* what)
{
  perror(what);
  exit(1);
}

static inline int open_or_die(const char* path, int flags)
{
  int fd = open(path, flags);
  if (fd == -1)
    die(path);
  return fd;
}

/* Monotonic, as the kernel stamps what it does. */
static inline gint64 now_ns(void)
{
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * G_GINT64_CONSTANT(1000000000) + now.tv_nsec;
}

/* And begins anew from now. */
static inline double us_since(gint64* started)
{
  gint64 before = *started;
  *started = now_ns();
  return (double)(*started - before) / 1000;
}

static inline void on_signal(GDBusConnection* bus, const char* sender, const char* path,
                             const char* iface, const char* name, GVariant* values, gpointer data)
{
  gboolean state = FALSE;
  (void)bus, (void)sender, (void)path, (void)iface, (void)name;
  g_variant_get_child(values, 5, "b", &state);
  *(int*)data = state;
}

static inline GDBusConnection* connect_to(const char* address)
{
  GDBusConnection* made = g_dbus_connection_new_for_address_sync(
      address,
      G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION,
      NULL, NULL, NULL);
  if (made == NULL)
    exit(1);
  return made;
}

static inline void listen_to(GDBusConnection* bus, const char* iface, const char* path, int* told)
{
  g_dbus_connection_signal_subscribe(bus, NULL, iface, "PortChanged", path, NULL, 0, on_signal, told,
                                     NULL);
}

/* What is answered after the wishes to listen was granted after them. */
static inline void wait_for_the_bus(GDBusConnection* bus)
{
  GVariant* answer = g_dbus_connection_call_sync(
      bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId", NULL,
      NULL, G_DBUS_CALL_FLAGS_NONE, -1, NULL, NULL);
  if (answer == NULL)
    exit(1);
  g_variant_unref(answer);
}

static inline void join_bus(struct bus* bus, const char* address)
{
  bus->sender = connect_to(address);
  bus->receiver = connect_to(address);
  bus->floor_state = bus->port_state = -1;
  listen_to(bus->receiver, FLOOR, "/bench", &bus->floor_state);
  listen_to(bus->receiver, STATE, STATE_PATH, &bus->port_state);
  wait_for_the_bus(bus->receiver);
}

static inline void wait_until_told(const int* told, int state)
{
  while (*told != state)
    g_main_context_iteration(NULL, TRUE);
}

/* Sends what the daemon sends of a port, and waits until it is there. */
static inline void send_signal(struct bus* bus, int state)
{
  g_dbus_connection_emit_signal(
      bus->sender, NULL, "/bench", FLOOR, "PortChanged",
      g_variant_new("(ibbbbbb)", 0, FALSE, FALSE, TRUE, FALSE, state, FALSE), NULL);
  wait_until_told(&bus->floor_state, state);
}

#endif
