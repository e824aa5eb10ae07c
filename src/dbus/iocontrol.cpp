// A thin layer: each handler looks a port up, calls one operation of it, answers, and saves the
// port when it was configured. Every invocation is answered exactly once.
#include "dbus/iocontrol.h"

#include "dbus/connector.h"
#include "dbus/iocontrol-state-gen.h"
#include "dbus/manager.h"
#include "dbus/signal-flush.h"
#include "param/param.h"
#include "platform/bus-name.h"
#include "platform/memory.h"
#include "port/action-sequence.h"
#include "port/ioport-list.h"
#include "port/port-observer.h"

#include <array>
#include <memory>
#include <optional>

/// What is on the bus for as long as the service is.
struct IoControl {
  LegacyInterface legacy;
  std::optional<BusName> state_name;
  std::optional<BusName> connector_name;
  /// Shared with the listeners to what ports announce.
  std::shared_ptr<SharedObject<IOControlState>> state =
      std::make_shared<SharedObject<IOControlState>>();
  std::optional<Manager> manager;
  ObjectRef<WXDConnector> connector;
};

namespace {

/// The skeleton, as long as the service is published.
using State = std::shared_ptr<const SharedObject<IOControlState>>;

constexpr const char* state_name = "com.norv.IOControl.State";
constexpr ExportedObject state_object{.path = "/com/norv/IOControl/State",
                                      .name = "IOControl state"};

constexpr std::array error_entries{
    GDBusErrorEntry{IO_CONTROL_ERROR_GENERIC, "com.norv.IOControl.Error.Generic"},
    GDBusErrorEntry{IO_CONTROL_ERROR_NO_PORT, "com.norv.IOControl.Error.No_port"},
    GDBusErrorEntry{IO_CONTROL_ERROR_BUSY, "com.norv.IOControl.Error.Busy"},
    GDBusErrorEntry{IO_CONTROL_ERROR_NOT_OUTPUT, "com.norv.IOControl.Error.Not_output"},
    GDBusErrorEntry{IO_CONTROL_ERROR_NOT_INPUT, "com.norv.IOControl.Error.Not_input"},
    GDBusErrorEntry{IO_CONTROL_ERROR_NOT_CONFIGURABLE, "com.norv.IOControl.Error.Not_configurable"},
    GDBusErrorEntry{IO_CONTROL_ERROR_INCORRECT_PORT_TYPE,
                    "com.norv.IOControl.Error.Incorrect_Port_Type"},
};

bool configurable(const IoPort* port) {
  return port->type == PORT_IO_CTRL;
}

// Reading.

void get_state(IOControlState* object, GDBusMethodInvocation* invocation, IoPort* port) {
  iocontrol_state_complete_get_state(object, invocation, io_port_get_state(port));
}

gboolean on_handle_get_nbr_ports(IOControlState* object, GDBusMethodInvocation* invocation,
                                 gpointer /*service*/) {
  iocontrol_state_complete_get_nbr_ports(object, invocation, io_port_list_nbr_inputs(),
                                         io_port_list_nbr_outputs());
  return TRUE;
}

void is_configurable(IOControlState* object, GDBusMethodInvocation* invocation, IoPort* port) {
  iocontrol_state_complete_is_configurable(object, invocation, configurable(port));
}

void get_direction(IOControlState* object, GDBusMethodInvocation* invocation, IoPort* port) {
  iocontrol_state_complete_get_direction(
      object, invocation,
      direction_word(io_port_input(port) ? Direction::Input : Direction::Output));
}

void get_active(IOControlState* object, GDBusMethodInvocation* invocation, IoPort* port) {
  iocontrol_state_complete_get_active(
      object, invocation, open_or_closed(io_port_get_activelow(port, PortSide::Input)),
      open_or_closed(io_port_get_activelow(port, PortSide::Output)));
}

void get_names(IOControlState* object, GDBusMethodInvocation* invocation, IoPort* port) {
  g_autofree gchar* input = nullptr;
  g_autofree gchar* output = nullptr;
  io_port_get_names(port, &input, &output);
  iocontrol_state_complete_get_names(object, invocation, input != nullptr ? input : "",
                                     output != nullptr ? output : "");
}

void get_usage(IOControlState* object, GDBusMethodInvocation* invocation, IoPort* port) {
  g_autofree gchar* usage = io_port_get_usage(port);
  iocontrol_state_complete_get_usage(object, invocation, usage != nullptr ? usage : "");
}

// Setting. Each function says why the port refuses, if it does.

struct Refusal {
  IoControlError code;
  const char* message;
};
using Refused = std::optional<Refusal>;

Refused refused_unless(bool done, IoControlError code, const char* message) {
  return done ? std::nullopt : Refused({.code = code, .message = message});
}

/// When a port is saved that was to be set.
enum class Save {
  WhenSet,
  /// Refused or not: the file then says what the port really is.
  Always,
};

/// Answers a call by what `Set` (port, arguments...) says; `Complete` is the answer of a port that
/// was set.
template <auto Set, auto Complete, Save Saved>
struct Setter;

template <typename... Arguments, Refused (*Set)(IoPort*, Arguments...),
          void (*Complete)(IOControlState*, GDBusMethodInvocation*), Save Saved>
struct Setter<Set, Complete, Saved> {
  static void answer(IOControlState* object, GDBusMethodInvocation* invocation, IoPort* port,
                     Arguments... arguments) {
    const Refused refused = Set(port, arguments...);
    if (refused) {
      answer_error(invocation, refused->code, refused->message);
    } else {
      Complete(object, invocation);
    }
    if (!refused || Saved == Save::Always) {
      param_save_for_port(port, param_file);
    }
  }
};

Refused set_state(IoPort* port, gboolean active) {
  return refused_unless(io_port_set_state(port, active != FALSE), IO_CONTROL_ERROR_NOT_OUTPUT,
                        "Port not output.");
}

Refused set_direction(IoPort* port, const gchar* direction) {
  const auto wanted = find_word(direction_words, direction);
  if (!wanted) {
    return Refusal{.code = IO_CONTROL_ERROR_GENERIC,
                   .message = "Incorrect input to set_direction eiter use 'input' or 'output'"};
  }
  return refused_unless(io_port_set_direction(port, *wanted), IO_CONTROL_ERROR_NOT_CONFIGURABLE,
                        "Port not configurable.");
}

Refused set_active(IoPort* port, gboolean input, const gchar* state) {
  const auto activelow = find_word(activelow_words, state);
  if (!activelow) {
    return Refusal{.code = IO_CONTROL_ERROR_GENERIC,
                   .message = "Incorrect input to set_active eiter use 'open' or 'closed'"};
  }
  return refused_unless(
      io_port_set_activelow(port, *activelow, input != FALSE ? PortSide::Input : PortSide::Output),
      IO_CONTROL_ERROR_GENERIC,
      *activelow ? "Could not set port to open." : "Could not set port to closed.");
}

Refused set_name(IoPort* port, gboolean input, const gchar* name) {
  return input != FALSE
             ? refused_unless(io_port_set_input_name(port, name), IO_CONTROL_ERROR_GENERIC,
                              "Could not set input name for the port.")
             : refused_unless(io_port_set_output_name(port, name), IO_CONTROL_ERROR_GENERIC,
                              "Could not set output name for the port.");
}

Refused set_usage(IoPort* port, const gchar* usage) {
  return refused_unless(io_port_set_usage(port, usage), IO_CONTROL_ERROR_GENERIC,
                        "Could not set usage for the port.");
}

Refused set_virtual(IoPort* port, gboolean state) {
  return refused_unless(io_port_set_virtual(port, state != FALSE), IO_CONTROL_ERROR_GENERIC,
                        "Could not set port.");
}

// All ports at once.

GVariant* port_properties(IoPort* port) {
  g_autoptr(GList) keys = io_port_get_property_keys(port);
  g_autoptr(GList) values = io_port_get_property_values(port);
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("a(sb)"));
  for (const GList *key = keys, *value = values; key != nullptr;
       key = key->next, value = value->next) {
    g_variant_builder_add(&builder, "(sb)", static_cast<const char*>(key->data),
                          GPOINTER_TO_INT(value->data));
  }
  return g_variant_builder_end(&builder);
}

GVariant* port_props(IoPort* port) {
  return g_variant_new(
      "(sibbbb@a(sb))", port->name ? port->name->c_str() : "", port->number,
      io_port_get_state(port), io_port_direction_input(port), configurable(port),
      io_port_get_activelow(port, io_port_input(port) ? PortSide::Input : PortSide::Output),
      port_properties(port));
}

gboolean on_handle_get_port_props(IOControlState* object, GDBusMethodInvocation* invocation,
                                  gpointer /*user_data*/) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("a(sibbbba(sb))"));
  gint count = 0;
  {
    const IoPortListLock list_lock;
    for (IoPort* entry : io_port_list_get()) {
      const IoPortRef port(io_port_ref(entry));
      g_variant_builder_add_value(&builder, port_props(port.get()));
      count++;
    }
  }
  iocontrol_state_complete_get_port_props(object, invocation, count,
                                          g_variant_builder_end(&builder));
  return TRUE;
}

/// From here on a call is so large that its memory is worth giving back.
constexpr gsize many_steps = 1000;

ActionSequence action_steps(IoPort* port, Trigger trigger, GVariant* seq) {
  ActionSequence steps;
  GVariantIter iter;
  g_variant_iter_init(&iter, seq);
  gboolean state = FALSE;
  gint32 duration_ms = 0;
  while (g_variant_iter_next(&iter, "(bi)", &state, &duration_ms)) {
    steps.push_back(
        {.port = port, .trigger = trigger, .state = state != FALSE, .duration_ms = duration_ms});
  }
  return steps;
}

void answer_sequence_start(IOControlState* object, GDBusMethodInvocation* invocation,
                           SequenceStart start) {
  switch (start) {
  case SequenceStart::Started:
    iocontrol_state_complete_start_action_sequence(object, invocation);
    break;
  case SequenceStart::Refused:
    answer_error(invocation, IO_CONTROL_ERROR_NOT_OUTPUT, "Port not output.");
    break;
  case SequenceStart::NoThread:
    answer_error(invocation, IO_CONTROL_ERROR_GENERIC, "The action sequence could not be started.");
    break;
  }
}

void start_action_sequence(IOControlState* object, GDBusMethodInvocation* invocation, IoPort* port,
                           gboolean is_virtual, GVariant* seq) {
  auto steps = action_steps(port, is_virtual ? Trigger::Virtual : Trigger::Hardware, seq);
  if (steps.size() >= many_steps) {
    memory_give_back_soon();
  }
  if (io_port_lock_taken(port)) {
    answer_error(invocation, IO_CONTROL_ERROR_BUSY, "The port is busy.");
  } else if (steps.empty()) {
    answer_error(invocation, IO_CONTROL_ERROR_GENERIC, "The action sequence has no steps.");
  } else if (steps.size() > action_sequence_step_limit) {
    answer_error(invocation, IO_CONTROL_ERROR_GENERIC, "The action sequence has too many steps.");
  } else {
    answer_sequence_start(object, invocation, io_port_run_action_sequence(port, std::move(steps)));
  }
}

// After ports came or went: whoever shows the port set learns of it, new ports are watched.
void serve_changed_port_set() {
  port_observer.port_set_changed();
  io_port_list_set_watch();
  io_port_list_declare_events();
}

gboolean on_handle_drop_io_ports(IOControlState* object, GDBusMethodInvocation* invocation,
                                 const gchar* const* names, gpointer user_data) {
  g_autoptr(GStrvBuilder) dropped = g_strv_builder_new();
  bool any = false;
  for (; *names != nullptr; names++) {
    const IoPortRef port = io_port_list_get_by_name(*names);
    if (port == nullptr || !port->optional) {
      continue;
    }
    io_port_close(port.get());
    io_port_list_move_to_dynamic(port.get());
    g_strv_builder_add(dropped, *names);
    any = true;
  }
  if (any) {
    serve_changed_port_set();
    static_cast<IoControl*>(user_data)->manager->tell_ports();
  }
  g_auto(GStrv) answer = g_strv_builder_end(dropped);
  iocontrol_state_complete_drop_ioports(object, invocation, answer);
  return TRUE;
}

gboolean on_handle_refresh_io_ports(IOControlState* object, GDBusMethodInvocation* invocation,
                                    gpointer user_data) {
  if (io_port_list_setup_dynamic_ports() > 0) {
    serve_changed_port_set();
  }
  // Also of those that are still missing there may be another reason now.
  static_cast<IoControl*>(user_data)->manager->tell_ports();
  iocontrol_state_complete_refresh_ioports(object, invocation);
  return TRUE;
}

// The service may go meanwhile, so nothing of it is held on to but its connection.
void wait_for_signals_to_leave(const State& state) {
  ObjectRef<GDBusConnection> connection;
  state->with([&](IOControlState* skeleton) {
    auto* const skeleton_base = G_DBUS_INTERFACE_SKELETON(skeleton);
    if (auto* const used = g_dbus_interface_skeleton_get_connection(skeleton_base)) {
      connection.reset(G_DBUS_CONNECTION(g_object_ref(used)));
    }
  });
  if (connection != nullptr) {
    signal_flush(connection.get());
  }
}

template <auto Answer>
MethodHandler of_published(const char* signal) {
  return port_method<published_port<IO_CONTROL_ERROR_NO_PORT>, Answer>(signal);
}

template <auto Answer>
MethodHandler of_any(const char* signal) {
  return port_method<any_port<IO_CONTROL_ERROR_NO_PORT>, Answer>(signal);
}

template <auto Set, auto Complete, Save Saved = Save::WhenSet>
MethodHandler setter(const char* signal) {
  return of_published<Setter<Set, Complete, Saved>::answer>(signal);
}

const std::array<MethodHandler, 17> handlers{{
    of_any<start_action_sequence>("handle-start-action-sequence"),
    {"handle-drop-ioports", G_CALLBACK(on_handle_drop_io_ports)},
    {"handle-refresh-ioports", G_CALLBACK(on_handle_refresh_io_ports)},
    {"handle-get-nbr-ports", G_CALLBACK(on_handle_get_nbr_ports)},
    of_published<get_state>("handle-get-state"),
    setter<set_state, iocontrol_state_complete_set_state>("handle-set-state"),
    // Whatever the look-up by number finds is an I/O port or a virtual port.
    of_any<Setter<set_virtual, iocontrol_state_complete_set_virtual, Save::WhenSet>::answer>(
        "handle-set-virtual"),
    of_published<is_configurable>("handle-is-configurable"),
    setter<set_direction, iocontrol_state_complete_set_direction, Save::Always>(
        "handle-set-direction"),
    of_published<get_direction>("handle-get-direction"),
    of_published<get_active>("handle-get-active"),
    setter<set_active, iocontrol_state_complete_set_active, Save::Always>("handle-set-active"),
    setter<set_name, iocontrol_state_complete_set_name>("handle-set-name"),
    of_published<get_names>("handle-get-names"),
    setter<set_usage, iocontrol_state_complete_set_usage>("handle-set-usage"),
    of_published<get_usage>("handle-get-usage"),
    {"handle-get-port-props", G_CALLBACK(on_handle_get_port_props)},
}};

void iocontrol_on_bus_acquired(IoControl* service, GDBusConnection* connection) {
  IOControlState* const skeleton = iocontrol_state_skeleton_new();
  service->state->reset(skeleton);
  export_skeleton(skeleton, handlers, service, connection, state_object);
  service->manager.emplace(connection, service->legacy);
}

void iocontrol_emit_port_changed(const State& state, const PortChange& change) {
  state->with([&](IOControlState* skeleton) {
    iocontrol_state_emit_port_changed(skeleton, change.number, change.is_virtual, change.hidden,
                                      change.input, change.trigger == Trigger::Virtual,
                                      change.state, change.activelow);
  });
}

void iocontrol_emit_action_sequence_done(const State& state, gint port_number) {
  state->with([=](IOControlState* skeleton) {
    iocontrol_state_emit_action_sequence_done(skeleton, port_number);
  });
}

// The threads of sequences, which go on to the end of the ports, announce by these.
void listen(const State& state) {
  port_observer.port_changed = [state](const PortChange& change) {
    iocontrol_emit_port_changed(state, change);
  };
  port_observer.sequence_done = [state](gint port_number) {
    iocontrol_emit_action_sequence_done(state, port_number);
  };
  port_observer.burst_announced = [state] { wait_for_signals_to_leave(state); };
}

} // namespace

IoControlOwner iocontrol_init_dbus(LegacyInterface legacy) {
  register_errors(io_control_error_quark(), error_entries);
  IoControlOwner service(new IoControl{.legacy = legacy});
  listen(service->state);
  service->state_name.emplace(state_name, [to = service.get()](GDBusConnection* connection) {
    iocontrol_on_bus_acquired(to, connection);
  });
  service->connector_name.emplace(connector_name,
                                  [to = service.get()](GDBusConnection* connection) {
                                    to->connector = connector_publish(connection);
                                  });
  return service;
}

void iocontrol_unreg_dbus(IoControl* service) {
  port_observer.port_changed = nullptr;
  port_observer.burst_announced = nullptr;
  port_observer.sequence_done = nullptr;
  service->manager.reset();
  service->state->reset();
  service->state_name.reset();
  service->connector.reset();
  service->connector_name.reset();
  delete service;
}
