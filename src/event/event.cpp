// Declaring, sending and withdrawing a port's events.
//
// Records are reached from the main thread and from action-sequence threads; the module's mutex
// keeps a record's id and filter consistent between them. It is taken below a port's lock. Of the
// locks of a port and of the list, only `readout_lock` is taken under it, when an event tells what
// a converter measures now.
#include "event/event.h"

#include "event/event-builtin.h"
#include "event/event-values.h"
#include "platform/checks.h"
#include "platform/event-library.h"
#include "platform/handles.h"
#include "platform/log.h"
#include "platform/mutex.h"
#include "port/ioport-list.h"
#include "port/ioport.h"

#include <memory>
#include <tuple>
#include <utility>

namespace {

constexpr const char* producer_name = "wxd";

using ProducerHandle = std::unique_ptr<NvEventProducer, FreeWith<nv_event_producer_free>>;
using DeclarationHandle = std::unique_ptr<NvEventDeclaration, FreeWith<nv_event_declaration_free>>;
using EventHandle = std::unique_ptr<NvEvent, FreeWith<nv_event_free>>;

/// What the daemon has of the event library, and with `event_mutex` the guard of all records.
struct Events {
  Mutex event_mutex;
  /// Created on the first declaration, kept until the process ends.
  ProducerHandle producer WEXD_GUARDED_BY(event_mutex);
  /// The one declaration that all any-port events share; 0 until declared.
  guint port_any_id WEXD_GUARDED_BY(event_mutex) = 0;
  InitialState port_any_initial_state WEXD_GUARDED_BY(event_mutex) = InitialState::Withheld;
};

Events events;

bool is_type(const IoEvent* event, const char* type_name) {
  return event->declaration == type_name;
}

enum class FillMode { Declaration, Send };

// An event that is only declared is never sent, not even with the state that it starts with.
InitialState initial_state_of(const IoEvent* event) {
  return event->declare_only ? InitialState::Withheld : InitialState::Sent;
}

OptionalText nice_name(IoPort* port, const OptionalText& name) {
  if (name != "PORT_NAME") {
    return name;
  }
  g_autofree gchar* port_name = io_port_get_name(port);
  return port_name != nullptr ? OptionalText(port_name) : std::nullopt;
}

bool set_nice_names(IoPort* port, NvEventInspectable* inspectable, const EventKeyValue& entry) {
  if (!entry.key_nice_name && !entry.value_nice_name) {
    return true;
  }
  const auto key_nice_name = nice_name(port, entry.key_nice_name);
  const auto value_nice_name = nice_name(port, entry.value_nice_name);
  if (entry.key
      && nv_event_inspectable_set_nice_names(inspectable, entry.key->c_str(),
                                             c_str_or_null(key_nice_name),
                                             c_str_or_null(value_nice_name))) {
    return true;
  }
  // The key nice name stands in for the key as well; operators' filters know the line so.
  g_warning("%sFailed to set value nice name. Key: %s KNN: %s VNN: %s", log_prefix,
            c_str_or_null(key_nice_name), c_str_or_null(key_nice_name),
            c_str_or_null(value_nice_name));
  return false;
}

bool set_value(IoPort* port, NvEventInspectable* inspectable, const EventKeyValue& entry) {
  const auto type = event_value_type(entry);
  const auto text = event_value_text(port, entry);
  if (entry.key
      && nv_event_inspectable_set_value(inspectable, entry.key->c_str(), text.c_str(), type)) {
    return true;
  }
  g_warning("%spopulating event key value failed - Key: %s Val: %s Type: %s", log_prefix,
            c_str_or_null(entry.key), c_str_or_null(entry.value), c_str_or_null(entry.type));
  return false;
}

// Fills the inspectable from the event's records. In declaration mode the record that carries the
// event's data is left out and handed back through `property` (the last one wins).
bool fill_key_values(IoPort* port, const IoEvent* event, NvEventInspectable* inspectable,
                     FillMode mode, const EventKeyValue** property) {
  for (const auto& entry : event->key_values) {
    if (mode == FillMode::Send) {
      if (!entry.property) {
        continue;
      }
    } else {
      if (!set_nice_names(port, inspectable, entry)) {
        return false;
      }
      if (entry.property) {
        *property = &entry;
        continue;
      }
    }
    if (!set_value(port, inspectable, entry)) {
      return false;
    }
  }
  return true;
}

// Sends an event of a type that the library knows; `error` is the library's.
bool send_generic(IoPort* port, const IoEvent* event, GError** error)
    WEXD_REQUIRES(events.event_mutex) {
  const EventHandle handle(nv_event_producer_prepare(events.producer.get(), event->id, nullptr));
  if (handle == nullptr) {
    g_warning("%sFailed to prepare event: %s id: %d", log_prefix, c_str_or_null(event->declaration),
              static_cast<gint>(event->id));
    return false;
  }
  if (!fill_key_values(port, event, nv_event_get_inspectable(handle.get()), FillMode::Send,
                       nullptr)) {
    g_warning("%sFailed to populate event values", log_prefix);
    return false;
  }
  return nv_event_producer_send(events.producer.get(), handle.get(), error);
}

bool make_property(NvEventDeclaration* declaration, const EventKeyValue* property) {
  if (property == nullptr || nv_event_declaration_is_property(declaration)) {
    return true;
  }
  if (property->key
      && nv_event_declaration_set_property(declaration, property->key->c_str(), nullptr, nullptr)) {
    return true;
  }
  g_warning("%sFailed to set event property: %s", log_prefix, c_str_or_null(property->key));
  return false;
}

void send_initial_state(IoPort* port, const IoEvent* event) WEXD_REQUIRES(events.event_mutex) {
  g_autoptr(GError) error = nullptr;
  if (!send_generic(port, event, &error) || error != nullptr) {
    g_warning("%sFailed to send initial state of event %s for port %d", log_prefix,
              c_str_or_null(event->declaration), port->number);
  }
}

void declare_generic(IoPort* port, IoEvent* event) WEXD_REQUIRES(events.event_mutex) {
  const char* const type_name = c_str_or_null(event->declaration);
  const DeclarationHandle declaration(nv_event_declaration_new_from_type(type_name));
  if (declaration == nullptr) {
    g_warning("%sFailed to create event declaration: %s for port %d", log_prefix, type_name,
              port->number);
    return;
  }
  const EventKeyValue* property = nullptr;
  if (!fill_key_values(port, event, nv_event_declaration_get_inspectable(declaration.get()),
                       FillMode::Declaration, &property)) {
    g_warning("%sFailed to populate event declaration!", log_prefix);
    return;
  }
  if (!make_property(declaration.get(), property)) {
    return;
  }
  event->id = nv_event_producer_declare(events.producer.get(), declaration.get(), nullptr);
  if (event->id == 0) {
    g_warning("%sFailed to declare event %s for port %d", log_prefix, type_name, port->number);
    return;
  }
  event->is_property = nv_event_declaration_is_property(declaration.get());
  if (event->is_property && !event->declare_only) {
    send_initial_state(port, event);
  }
}

guint declare_builtin(IoPort* port, const char* type_name, InitialState initial_state)
    WEXD_REQUIRES(events.event_mutex) {
  const DeclarationHandle declaration(event_builtin_declaration(port, type_name, initial_state));
  return nv_event_producer_declare(events.producer.get(), declaration.get(), nullptr);
}

// The library withdraws an id only once, and the any-port id is shared by all ports.
void undeclare(IoEvent* event) WEXD_REQUIRES(events.event_mutex) {
  if (event->id == 0 || is_type(event, event_port_any)) {
    return;
  }
  std::ignore = nv_event_producer_undeclare(events.producer.get(), event->id, nullptr);
  event->id = 0;
  event->stale = false;
}

bool send_state(guint id, ReportedState state, GError** error) WEXD_REQUIRES(events.event_mutex) {
  const EventHandle handle(nv_event_producer_prepare(events.producer.get(), id, error));
  return handle != nullptr && nv_event_set_bool(handle.get(), "state", state.active())
         && nv_event_producer_send(events.producer.get(), handle.get(), error);
}

bool send_port_any(ReportedState state, GError** error) WEXD_REQUIRES(events.event_mutex) {
  if (events.port_any_id == 0) {
    g_warning("%sPortAny event not declared", log_prefix);
    return false;
  }
  return send_state(events.port_any_id, state, error);
}

bool send_supervised_port(const IoEvent* event, SupervisedState state, GError** error)
    WEXD_REQUIRES(events.event_mutex) {
  const EventHandle handle(nv_event_producer_prepare(events.producer.get(), event->id, error));
  return handle != nullptr && nv_event_set_bool(handle.get(), "tampered", event_tampered(state))
         && nv_event_set_string(handle.get(), "state", supervised_range_state2string(state))
         && nv_event_producer_send(events.producer.get(), handle.get(), error);
}

bool dispatch(IoPort* port, const IoEvent* event, ReportedState value, GError** error)
    WEXD_REQUIRES(events.event_mutex) {
  if (is_type(event, event_io_port)) {
    return send_state(event->id, value, error);
  }
  if (is_type(event, event_port_any)) {
    return send_port_any(value, error);
  }
  if (is_type(event, event_supervised_port)) {
    return send_supervised_port(event, value.supervised(), error);
  }
  return send_generic(port, event, error);
}

// What the filter compares and a supervised port's event tells.
ReportedState compared_value(IoPort* port, const IoEvent* event, ReportedState value) {
  // An IO box reports all of its changes as plain levels, which tell no cut line from an open one.
  const bool plain_levels = port->backend == BACKEND_IOBOX && event->supervised_input
                            && !event_builtin_known(c_str_or_null(event->declaration))
                            && io_port_supervised_input(port);
  return is_type(event, event_supervised_port) || plain_levels
             ? ReportedState(io_port_get_supervised_state(port))
             : value;
}

bool send(IoPort* port, IoEvent* event, ReportedState value) WEXD_REQUIRES(events.event_mutex) {
  event->last_value = value;
  event->filter_reset = false;
  g_autoptr(GError) error = nullptr;
  const bool sent = dispatch(port, event, value, &error);
  if (error != nullptr) {
    g_warning("%sError sending event: %s", log_prefix, error->message);
  }
  return sent;
}

// The any-port event is nobody's in particular and is not renewed for one port's return.
void refresh_state(IoPort* port, IoEvent* event) WEXD_REQUIRES(events.event_mutex) {
  if (event->is_property && !event->declare_only) {
    send(port, event, compared_value(port, event, ReportedState(io_port_get_state(port))));
    event->filter_reset = true;
  }
}

void send_present_port_any(gpointer /*unused*/) {
  const ReportedState state(io_port_list_get_port_any_value());
  const MutexLock guard(events.event_mutex);
  send_port_any(state, nullptr);
}

// The declaration is shared: it tells its state from the start as soon as one of its events is
// sent.
void declare_port_any(IoPort* port, IoEvent* event) WEXD_REQUIRES(events.event_mutex) {
  const auto wanted = initial_state_of(event);
  if (events.port_any_id == 0) {
    events.port_any_id = declare_builtin(port, event_port_any, wanted);
    events.port_any_initial_state = wanted;
  } else if (wanted == InitialState::Sent
             && events.port_any_initial_state == InitialState::Withheld) {
    events.port_any_initial_state = wanted;
    g_idle_add_once(send_present_port_any, nullptr);
  }
  event->id = events.port_any_id;
}

void declare(IoPort* port, IoEvent* event) WEXD_REQUIRES(events.event_mutex) {
  if (events.producer == nullptr) {
    events.producer.reset(nv_event_producer_new(producer_name));
  }
  event->filter_reset = true;
  if (!port->is_setup) {
    return;
  }
  if (event->id != 0) {
    if (std::exchange(event->stale, false)) {
      refresh_state(port, event);
    }
    return;
  }
  if (!io_event_currently_applicable(port, event)) {
    return;
  }
  if (is_type(event, event_port_any)) {
    declare_port_any(port, event);
  } else if (event_builtin_known(c_str_or_null(event->declaration))) {
    event->id = declare_builtin(port, event->declaration->c_str(), initial_state_of(event));
    event->is_property = true;
  } else {
    declare_generic(port, event);
  }
}

} // namespace

bool io_event_currently_applicable(IoPort* port, const IoEvent* event) {
  if (io_port_supervised_input(port)) {
    return event->supervised_input || event->input;
  }
  return io_port_input(port) ? event->input : event->output;
}

bool io_event_declare_event(IoPort* port, IoEvent* event) {
  const MutexLock guard(events.event_mutex);
  declare(port, event);
  return true;
}

bool io_event_send_event(IoPort* port, IoEvent* event, ReportedState value) {
  const MutexLock guard(events.event_mutex);
  if (event->id == 0 || events.producer == nullptr || event->declare_only) {
    return false;
  }
  value = compared_value(port, event, value);
  if (event->supervised_input && !event->filter_reset && value == event->last_value) {
    return false;
  }
  return send(port, event, value);
}

void io_event_redeclare_port(IoPort* port, IoEvent* event) {
  if (event == nullptr || is_type(event, event_port_any)) {
    return;
  }
  const MutexLock guard(events.event_mutex);
  undeclare(event);
  declare(port, event);
}

void io_event_undeclare_event(IoEvent* event) {
  const MutexLock guard(events.event_mutex);
  undeclare(event);
}

void io_event_mark_stale(IoEvent* event) {
  const MutexLock guard(events.event_mutex);
  event->stale = event->id != 0;
}

void io_event_reset_filter(IoEvent* event) {
  WEXD_ASSERT_NONNULL(event);
  const MutexLock guard(events.event_mutex);
  event->filter_reset = true;
}

void io_event_free(IoEvent* event) {
  if (event == nullptr) {
    return;
  }
  {
    const MutexLock guard(events.event_mutex);
    undeclare(event);
  }
  delete event;
}
