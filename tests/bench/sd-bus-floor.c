/* The floor once more, on sd-bus: what another bus library would take for the same trivial service.
 */
#include "bench-ports.h"

#include <errno.h>
#include <signal.h>
#include <stdbool.h>
#include <stdio.h>
#include <string.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#define STATE "com.norv.IOControl.State"
#define LEGACY "com.norv.Configuration.Legacy.IOControl1.IOPort"

static bool states[bench_ports];

static int get_state(sd_bus_message* call, void* data, sd_bus_error* error) {
  unsigned port = 0;
  int done = sd_bus_message_read(call, "u", &port);
  (void)data, (void)error;
  if (done < 0 || port >= bench_ports)
    return -EINVAL;
  return sd_bus_reply_method_return(call, "b", states[port]);
}

static int set_state(sd_bus_message* call, void* data, sd_bus_error* error) {
  unsigned port = 0;
  int active = 0;
  int done = sd_bus_message_read(call, "ub", &port, &active);
  (void)data, (void)error;
  if (done < 0 || port >= bench_ports)
    return -EINVAL;
  if (states[port] != active) {
    states[port] = active;
    done = sd_bus_emit_signal(sd_bus_message_get_bus(call), state_path, STATE, "PortChanged",
                              "ibbbbbb", (int)port, 0, 0, 0, 0, active, 0);
    if (done < 0)
      return done;
  }
  return sd_bus_reply_method_return(call, "");
}

static int append_port(sd_bus_message* answer, int number) {
  int done = sd_bus_message_open_container(answer, 'r', "sibbbba(sb)");
  if (done >= 0)
    done = sd_bus_message_append(answer, "sibbbb", "port", number, states[number], 0, 0, 0);
  if (done >= 0)
    done = sd_bus_message_open_container(answer, 'a', "(sb)");
  for (size_t i = 0; done >= 0 && i < sizeof bench_properties / sizeof *bench_properties; ++i)
    done = sd_bus_message_append(answer, "(sb)", bench_properties[i], 1);
  if (done >= 0)
    done = sd_bus_message_close_container(answer);
  return done < 0 ? done : sd_bus_message_close_container(answer);
}

static int get_port_props(sd_bus_message* call, void* data, sd_bus_error* error) {
  sd_bus_message* answer = NULL;
  int done = sd_bus_message_new_method_return(call, &answer);
  (void)data, (void)error;
  if (done >= 0)
    done = sd_bus_message_append(answer, "i", bench_ports);
  if (done >= 0)
    done = sd_bus_message_open_container(answer, 'a', "(sibbbba(sb))");
  for (int i = 0; done >= 0 && i < bench_ports; ++i)
    done = append_port(answer, i);
  if (done >= 0)
    done = sd_bus_message_close_container(answer);
  if (done >= 0)
    done = sd_bus_send(NULL, answer, NULL);
  sd_bus_message_unref(answer);
  return done;
}

static int number_property(sd_bus* bus, const char* path, const char* interface,
                           const char* property, sd_bus_message* answer, void* data,
                           sd_bus_error* error) {
  (void)bus, (void)path, (void)interface, (void)property, (void)data, (void)error;
  return sd_bus_message_append(answer, "i", bench_ports);
}

static int flag_property(sd_bus* bus, const char* path, const char* interface, const char* property,
                         sd_bus_message* answer, void* data, sd_bus_error* error) {
  (void)bus, (void)path, (void)interface, (void)property, (void)data, (void)error;
  return sd_bus_message_append(answer, "b", 0);
}

static int text_property(sd_bus* bus, const char* path, const char* interface, const char* property,
                         sd_bus_message* answer, void* data, sd_bus_error* error) {
  const char* text = strcmp(property, "Direction") == 0 ? "output" : "";
  (void)bus, (void)path, (void)interface, (void)data, (void)error;
  return sd_bus_message_append_array(answer, 'y', text, strlen(text) + 1);
}

static const sd_bus_vtable state_members[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("GetState", "u", "b", get_state, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("SetState", "ub", "", set_state, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("GetPortProps", "", "ia(sibbbba(sb))", get_port_props,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL("PortChanged", "ibbbbbb", 0),
    SD_BUS_VTABLE_END,
};

static const sd_bus_vtable legacy_members[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("NbrOfIOPorts", "i", number_property, 0, 0),
    SD_BUS_PROPERTY("NbrOfInputs", "i", number_property, 0, 0),
    SD_BUS_PROPERTY("NbrOfOutputs", "i", number_property, 0, 0),
    SD_BUS_PROPERTY("ManualTriggerNbr", "i", number_property, 0, 0),
    SD_BUS_PROPERTY("Configurable", "b", flag_property, 0, 0),
    SD_BUS_PROPERTY("Direction", "ay", text_property, 0, 0),
    SD_BUS_PROPERTY("Usage", "ay", text_property, 0, 0),
    SD_BUS_VTABLE_END,
};

static int serve(sd_bus* bus, sd_event* loop) {
  int done = sd_bus_add_object_vtable(bus, NULL, state_path, STATE, state_members, NULL);
  if (done >= 0)
    done = sd_bus_add_object_vtable(bus, NULL, legacy_path, LEGACY, legacy_members, NULL);
  if (done >= 0)
    done = sd_bus_request_name(bus, "bench.SdBusFloor", 0);
  if (done >= 0)
    done = sd_bus_attach_event(bus, loop, 0);
  return done < 0 ? done : sd_event_loop(loop);
}

int main(void) {
  sigset_t end;
  sd_event* loop = NULL;
  sd_bus* bus = NULL;
  sigemptyset(&end);
  sigaddset(&end, SIGTERM);
  sigprocmask(SIG_BLOCK, &end, NULL);
  int done = sd_event_default(&loop);
  if (done >= 0)
    done = sd_event_add_signal(loop, NULL, SIGTERM, NULL, NULL);
  if (done >= 0)
    done = sd_bus_open_system(&bus);
  if (done >= 0)
    done = serve(bus, loop);
  sd_bus_flush_close_unref(bus);
  sd_event_unref(loop);
  if (done < 0)
    fprintf(stderr, "%s\n", strerror(-done));
  return done < 0;
}
